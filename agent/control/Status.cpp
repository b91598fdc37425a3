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
using Sums = std::map<std::string_view, std::uint64_t>;
using Sizes = std::map<std::string_view, Sums>;

void add(Sums& sums, const State::Entity& entity) {
    for (const auto& attribute : entity.entityType().attributes())
        if (attribute->kind() != State::AttributeKind::value)
            sums[attribute->name()] += attribute->size(entity);
}

// Adds up the members of an entity that can be addressed below its path.
void addMembers(Sizes& sizes, const std::string& path, const State::Entity& entity) {
    for (const auto& attribute : entity.entityType().attributes()) {
        if (attribute->kind() != State::AttributeKind::members)
            continue;
        Sums* family = nullptr;
        attribute->walk(entity, nullptr, [&](const State::Datum& key, const State::Datum&) {
            const std::string& name = *key.text();
            if (name.empty() || name.find('/') != std::string::npos)
                return true;
            if (family == nullptr)
                family = &sizes[Paths::shapeOf(std::string(path).append("/").append(name))->text];
            ++(*family)["entities"];
            add(*family, *attribute->member(entity, key));
            return true;
        });
    }
}

// Members of every collection: by path, those of one shape summed up under the shape.
void writeSizes(Writer& writer, const Stores& stores) {
    Sizes all;
    eachEntity(stores, [&](const std::string& path, const State::Handle<State::Entity>& entity) {
        const PathShape* shape = Paths::shapeOf(path);
        Sums& sums = all[shape != nullptr ? std::string_view(shape->text) : path];
        if (shape != nullptr && shape->text != path)
            ++sums["entities"];
        add(sums, *entity);
        if (shape != nullptr && shape->kind == PathKind::routeTables)
            addMembers(all, path, *entity);
    });
    writer.beginRecord();
    for (const auto& [path, sums] : all) {
        writer.field(path);
        writer.beginRecord();
        for (const auto& [name, size] : sums)
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
    writeSizes(writer, host.stores());
    writer.field("tables");
    writeTables(writer, host.stores());
    writer.field("counters");
    writer.beginRecord();
    writer.member("requests", requests_);
    writer.member("changes", operations_.counters().changes);
    writer.member("refused", operations_.counters().refused);
    writer.member("clients", sessions_ == nullptr ? 0 : sessions_->clients());
    if (sessions_ != nullptr) {
        writer.member("clientMemory", sessions_->memory());
        writer.member("clientMemoryMost", sessions_->memoryMost());
        writer.member("cutOff", sessions_->counters().cutOff);
        writer.member("closedIdle", sessions_->counters().idle);
        writer.member("turnedAway", sessions_->counters().turnedAway);
    }
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
