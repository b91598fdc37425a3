#include "agent/StatusReport.h"

#include "agent/JsonDatum.h"
#include "agent/OperationError.h"
#include "agent/Paths.h"
#include "state/ShmTable.h"
#include "state/Toggle.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace Agent {

namespace {

using Json = nlohmann::json;

void forEachEntity(
    const Host& host,
    const std::function<void(const std::string&, const State::Handle<State::Entity>&)>& visit) {
    for (const auto& store : {host.database(), host.tableStore(), host.entityStore()})
        for (const auto& [path, entity] : store->entities())
            visit(path, entity);
}

using Sizes = std::map<std::string, std::map<std::string, std::uint64_t>>;

/// Adds up the collections of what stands at a path, and of members that can be addressed below it.
class SizeSum final : public State::MemberVisitor {
  public:
    explicit SizeSum(const Host& host)
        : paths_(host) {}

    void add(const std::string& path) {
        const Place place = paths_.at(path);
        auto& sums = sizes[std::string(place.shape.empty() ? place.path : place.shape)];
        if (place.shape != place.path)
            ++sums["entities"];
        for (const auto& attribute : place.type->attributes()) {
            if (attribute->kind() == State::AttributeKind::value)
                continue;
            sums[std::string(attribute->name())] += attribute->size(*place.entity);
            if (place.kind == PathKind::lumenFibs) {
                fibsPath_ = path;
                attribute->walk(*place.entity, nullptr, *this);
            }
        }
    }

    bool member(const State::Datum& key, const State::Datum& /*value*/) override {
        if (key.text()->find('/') == std::string::npos && !key.text()->empty())
            add(fibsPath_ + "/" + *key.text());
        return true;
    }

    Sizes sizes;

  private:
    Paths paths_;
    std::string fibsPath_;
};

} // namespace

Json togglesReport() {
    constexpr std::string_view origins[] = {"default", "file", "override"};
    Json report = Json::array();
    for (const State::ToggleStatus& toggle : State::toggles()) {
        report.push_back({{"name", toggle.name},
                          {"file", toggle.file},
                          {"value", toggle.value},
                          {"origin", origins[static_cast<std::size_t>(toggle.origin)]}});
    }
    return report;
}

Json readyReport(const Host& host) {
    const auto status = host.database()->entity("api/multicastSmStatus");
    return toJson(status->entityType().fields(*status));
}

Json sizesReport(const Host& host) {
    SizeSum sum(host);
    forEachEntity(host, [&](const std::string& path, const auto&) { sum.add(path); });
    return sum.sizes;
}

Json tablesReport(const Host& host) {
    std::uint64_t refused = 0;
    std::uint64_t corruptions = 0;
    Json last;
    forEachEntity(host, [&](const std::string& path, const State::Handle<State::Entity>& entity) {
        const auto table = State::handleCast<State::ShmTable>(entity);
        if (!table)
            return;
        refused += table->refused();
        corruptions += table->corruptions();
        if (table->corruptions() != 0)
            last = {{"path", path}, {"message", table->lastCorruption()}};
    });
    return {{"refusedRows", refused}, {"corruptions", corruptions}, {"lastCorruption", last}};
}

} // namespace Agent
