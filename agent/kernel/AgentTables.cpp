#include "agent/kernel/AgentTables.h"

#include "agent/host/Refusal.h"
#include "records/RouteStatus.h"
#include "state/Errors.h"

namespace Agent::Kernel {
namespace {

using Routing::Hardware::RouteStatus;
using Routing::Multicast::Fib::VrfEnabledStatus;

RouteKey routeKey(const MfcKey& key) {
    return {key.source == 0 ? L3::IpGenPrefix() : L3::IpGenPrefix::host(L3::IpAddr(key.source)),
            L3::IpGenPrefix::host(L3::IpAddr(key.group))};
}

MfcKey mfcKey(const RouteKey& key) {
    return {.source = key.source.ipv4().value(), .group = key.group.ipv4().value()};
}

Change enabling(const VrfConfig& vrf, bool enabled) {
    return {.path = VrfEnabledStatus::path, .attribute = "vrfEnabled", .key = vrf.name, .value = enabled};
}

Change deletion(const char* path, const char* attribute, const VrfConfig& vrf) {
    return {.op = Change::Op::del, .path = path, .attribute = attribute, .key = vrf.name};
}

} // namespace

WhyNot AgentTables::apply(std::span<const Change> changes) {
    try {
        operations_.apply(changes);
    } catch (const Refusal& refusal) {
        return refusal.what();
    }
    return {};
}

WhyNot AgentTables::putVrf(const VrfConfig& vrf, bool multicastEnabled) {
    std::vector<Change> changes;
    if (!multicastEnabled)
        changes.push_back(enabling(vrf, false));
    changes.push_back({.path = RouteStatus::path,
                       .attribute = "vrfStatus",
                       .key = vrf.name,
                       .value = State::Datum::Record{{"vrfId", std::uint64_t{vrf.id}}}});
    for (const RouteType type : routeTypes)
        changes.push_back({.path = operations_.host().routes().tablePath(vrf.name, type)});
    if (multicastEnabled)
        changes.push_back(enabling(vrf, true));
    return apply(changes);
}

WhyNot AgentTables::removeVrf(const VrfConfig& vrf) {
    const Change changes[] = {deletion(VrfEnabledStatus::path, "vrfEnabled", vrf),
                              deletion(RouteStatus::path, "vrfStatus", vrf)};
    WhyNot why = apply(changes);
    if (why.empty())
        tables_.erase(vrf.name);
    return why;
}

std::unique_ptr<RouteTable>& AgentTables::tableOf(const VrfConfig& vrf, RouteType type) {
    return tables_[vrf.name][static_cast<std::size_t>(type)];
}

template <class Visit>
void AgentTables::eachTable(Visit visit) {
    for (auto& [vrf, tables] : tables_)
        for (const auto& table : tables)
            if (table)
                visit(*table);
}

WhyNot AgentTables::putRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key,
                             std::span<const Oif> oifs) {
    try {
        std::unique_ptr<RouteTable>& table = tableOf(vrf, type);
        if (!table)
            table = operations_.host().routes().table(vrf.name, type);
        operations_.changedDirectly(table->put(routeKey(key), oifs));
    } catch (const Refusal& refusal) {
        return refusal.what();
    } catch (const State::Error& error) {
        return error.what();
    }
    return {};
}

void AgentTables::removeRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key) {
    if (const auto& table = tableOf(vrf, type))
        operations_.changedDirectly(table->erase(routeKey(key)));
}

bool AgentTables::renameInterface(int ifindex, std::string_view name) {
    bool rowsHoldNames = false;
    eachTable([&](RouteTable& table) {
        const bool isRenamed = table.rename(ifindex, name);
        operations_.changedDirectly(isRenamed);
        rowsHoldNames = rowsHoldNames || !isRenamed;
    });
    return rowsHoldNames;
}

void AgentTables::forgetInterface(int ifindex) {
    eachTable([&](RouteTable& table) { table.forget(ifindex); });
}

std::optional<bool> AgentTables::multicastEnabled(const VrfConfig& vrf) const {
    const State::Datum name(vrf.name);
    if (!operations_.value(RouteStatus::path, "vrfStatus", &name))
        return std::nullopt;
    const auto enabled = operations_.value(VrfEnabledStatus::path, "vrfEnabled", &name);
    return enabled && *enabled->boolean();
}

void AgentTables::eachRoute(const VrfConfig& vrf, RouteType type, const RouteVisitor& visit) const {
    operations_.host().routes().eachRoute(vrf.name, type, [&](const ShownRoute& route) {
        visit(mfcKey(route.key), route.oifs);
        return true;
    });
}

} // namespace Agent::Kernel
