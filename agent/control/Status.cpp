// What `status` tells: toggles, ready flags, how much every collection holds, what tables refused, counters.
#include "agent/control/ControlService.h"

#include "agent/host/Output.h"
#include "agent/host/Paths.h"
#include "agent/json/Json.h"
#include "records/NatStatus.h"
#include "state/ShmTable.h"
#include "state/Toggle.h"
#include "state/Trace.h"

#include <map>
#include <string>

namespace Agent {

namespace {

using Text::Writer;

template <class Visit>
void eachEntity(const Stores& stores, Visit visit) {
    for (const auto& store : {stores.database, stores.tables, stores.entities})
        for (const auto& [path, entity] : store->entities())
            visit(path, entity);
}

// By path, and by the name of the collection.
using Sizes = std::map<std::string, std::map<std::string, std::uint64_t>>;

// Adds up the collections of what stands at a path, and of members that can be addressed below it.
void addSizes(const Operations& operations, const std::string& path, Sizes& sizes) {
    const Place place = Paths(operations.host().stores()).at(path);
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
        for (const auto& [key, value] : operations.members(path, attribute->name()).members)
            if (const std::string& name = *key.text(); !name.empty() && name.find('/') == std::string::npos)
                addSizes(operations, std::string(path).append("/").append(name), sizes);
    }
}

// Members of every collection: by path, those of one shape summed up under the shape.
void writeSizes(Writer& writer, const Operations& operations) {
    Sizes all;
    eachEntity(operations.host().stores(),
               [&](const std::string& path, const auto&) { addSizes(operations, path, all); });
    writer.beginRecord();
    for (const auto& [path, sizes] : all) {
        writer.field(path);
        writer.beginRecord();
        for (const auto& [name, size] : sizes)
            writer.member(name, size);
        writer.end();
    }
    writer.end();
}

// Rows that full tables refused and reads that found damage, over all tables.
void writeTables(Writer& writer, const Stores& stores) {
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
    if (path.empty())
        writer.value(nullptr);
    else
        writer.record("path", path, "message", message);
    writer.end();
}

} // namespace

void ControlService::writeStatus(Writer& writer) const {
    const std::chrono::duration<double> uptime = std::chrono::steady_clock::now() - started_;
    const Host& host = operations_.host();
    const auto ready = host.stores().inDatabase<KestrelNat::MulticastSmStatus>();
    writer.beginRecord();
    writer.member("version", KESTREL_VERSION);
    writer.member("instance", log_.instance());
    writer.member("uptimeSeconds", static_cast<std::uint64_t>(uptime.count()));
    writer.list("toggles", State::toggles(), [&](const State::ToggleStatus& toggle) {
        constexpr std::string_view origins[] = {"default", "file", "override"};
        writer.record("name", toggle.name, "file", toggle.file, "value", toggle.value, "origin",
                      origins[static_cast<std::size_t>(toggle.origin)]);
    });
    writer.member("fibSource", host.routes().name());
    writer.list("sources", sources_, [&](const std::string& source) { writer.value(source); });
    writer.field("ready");
    Json::write(writer, ready->entityType().fields(*ready));
    writer.field("sizes");
    writeSizes(writer, operations_);
    writer.field("tables");
    writeTables(writer, host.stores());
    writer.field("counters");
    writer.beginRecord();
    writer.member("requests", requests_);
    writer.member("changes", operations_.counters().changes);
    writer.member("refused", operations_.counters().refused);
    writer.member("clients", sessions_ == nullptr ? 0 : sessions_->clients());
    writer.member("cutOff", sessions_ == nullptr ? 0 : sessions_->cutOffCount());
    writer.member("watchers", watchers_.size());
    writer.member("answerSeq", log_.last());
    writer.member("answersOldest", log_.oldest());
    writer.member("traceNext", State::traceNext());
    writer.member("traceOldest", State::traceOldest());
    writer.member("interfaceNames", L3::IntfId::names());
    writer.member("interfaceNamesMost", L3::IntfId::maxNames);
    writer.member("interfaceNamesSwept", operations_.names().swept());
    writer.member("interfaceNameSweeps", operations_.names().sweeps());
    writer.member("linesDropped", StandardOutput::droppedLines());
    writer.end();
    writer.end();
}

} // namespace Agent
