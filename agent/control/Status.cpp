#include "agent/control/Status.h"

#include "agent/host/Paths.h"
#include "agent/json/Json.h"
#include "records/NatStatus.h"
#include "state/ShmTable.h"
#include "state/Toggle.h"

#include <map>
#include <string>

namespace Agent {

namespace {

template <class Visit>
void eachEntity(const Stores& stores, Visit visit) {
    for (const auto& store : {stores.database, stores.tables, stores.entities})
        for (const auto& [path, entity] : store->entities())
            visit(path, entity);
}

// Adds up the collections of what stands at a path, and of members that can be addressed below it.
class SizeSum {
  public:
    explicit SizeSum(const Stores& stores)
        : paths_(stores) {}

    void add(const std::string& path) {
        const Place place = paths_.at(path);
        const bool isFamily = place.shape != nullptr && place.shape->text != place.path;
        auto& sums = sizes[std::string(isFamily ? place.shape->text : place.path)];
        if (isFamily)
            ++sums["entities"];
        for (const auto& attribute : place.type->attributes()) {
            if (attribute->kind() == State::AttributeKind::value)
                continue;
            sums[std::string(attribute->name())] += attribute->size(*place.entity);
            if (place.kind() != PathKind::routeTables)
                continue;
            attribute->walk(*place.entity, nullptr, [&](const State::Datum& key, const State::Datum&) {
                if (key.text()->find('/') == std::string::npos && !key.text()->empty())
                    add(path + "/" + *key.text());
                return true;
            });
        }
    }

    std::map<std::string, std::map<std::string, std::uint64_t>> sizes;

  private:
    Paths paths_;
};

} // namespace

void writeToggles(Text::Writer& writer) {
    constexpr std::string_view origins[] = {"default", "file", "override"};
    writer.beginList();
    for (const State::ToggleStatus& toggle : State::toggles()) {
        writer.beginRecord();
        writer.member("name", toggle.name);
        writer.member("file", toggle.file);
        writer.member("value", toggle.value);
        writer.member("origin", origins[static_cast<std::size_t>(toggle.origin)]);
        writer.end();
    }
    writer.end();
}

void writeReady(Text::Writer& writer, const Stores& stores) {
    const auto status = stores.inDatabase<KestrelNat::MulticastSmStatus>();
    Json::write(writer, status->entityType().fields(*status));
}

void writeSizes(Text::Writer& writer, const Stores& stores) {
    SizeSum sum(stores);
    eachEntity(stores, [&](const std::string& path, const auto&) { sum.add(path); });
    writer.beginRecord();
    for (const auto& [path, sizes] : sum.sizes) {
        writer.field(path);
        writer.beginRecord();
        for (const auto& [name, size] : sizes)
            writer.member(name, size);
        writer.end();
    }
    writer.end();
}

void writeTables(Text::Writer& writer, const Stores& stores) {
    std::uint64_t refused = 0;
    std::uint64_t corruptions = 0;
    std::string path;
    std::string message;
    eachEntity(stores, [&](const std::string& at, const State::Handle<State::Entity>& entity) {
        const auto table = State::handleCast<State::ShmTable>(entity);
        if (!table)
            return;
        refused += table->refused();
        corruptions += table->corruptions();
        if (table->corruptions() != 0) {
            path = at;
            message = table->lastCorruption();
        }
    });
    writer.beginRecord();
    writer.member("refusedRows", refused);
    writer.member("corruptions", corruptions);
    writer.field("lastCorruption");
    if (path.empty()) {
        writer.value(nullptr);
    } else {
        writer.beginRecord();
        writer.member("path", path);
        writer.member("message", message);
        writer.end();
    }
    writer.end();
}

} // namespace Agent
