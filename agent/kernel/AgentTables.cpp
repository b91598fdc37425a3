// The agent's tables as the mirror of the kernel writes them: VRFs by way of Operations, so that the guards bind this
// source as they bind clients; what they refuse comes back as the reason. Routes, of which there are a hundred thousand,
// are written directly (RouteTable): nothing in their IPv4 keys and interfaces could be refused.
#include "agent/changes/Operations.h"
#include "agent/host/Refusal.h"
#include "agent/kernel/TableSink.h"
#include "records/RouteStatus.h"
#include "state/Errors.h"

#include <map>
#include <memory>

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

// Sets the VRF's entry, or removes it where there is no value.
Change entryOf(const VrfConfig& vrf, const char* path, const char* attribute,
               std::optional<State::Datum> value = {}) {
    return {.op = value ? Change::Op::set : Change::Op::del,
            .path = path,
            .attribute = attribute,
            .key = vrf.name,
            .value = std::move(value)};
}

class AgentTables final : public TableSink {
  public:
    explicit AgentTables(Operations& operations)
        : operations_(operations) {}

    WhyNot putVrf(const VrfConfig& vrf, bool multicastEnabled) override {
        const State::Datum::Record entry{{"vrfId", std::uint64_t{vrf.id}}};
        std::vector<Change> changes{entryOf(vrf, RouteStatus::path, "vrfStatus", entry)};
        for (const RouteType type : routeTypes)
            changes.push_back({.path = operations_.host().routes().tablePath(vrf.name, type)});
        // Multicast goes on last, and off first.
        changes.insert(multicastEnabled ? changes.end() : changes.begin(),
                       entryOf(vrf, VrfEnabledStatus::path, "vrfEnabled", multicastEnabled));
        return apply(changes);
    }

    WhyNot removeVrf(const VrfConfig& vrf) override {
        const Change changes[] = {entryOf(vrf, VrfEnabledStatus::path, "vrfEnabled"),
                                  entryOf(vrf, RouteStatus::path, "vrfStatus")};
        WhyNot why = apply(changes);
        if (why.empty())
            std::erase_if(tables_, [&](const auto& table) { return table.first.first == vrf.name; });
        return why;
    }

    WhyNot putRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key,
                    std::span<const Oif> oifs) override {
        try {
            std::unique_ptr<RouteTable>& table = tables_[{vrf.name, type}];
            if (!table)
                table = operations_.host().routes().table(vrf.name, type);
            const bool isChanged =
                operations_.names().roomFor([&] { return table->put(routeKey(key), oifs); });
            operations_.changedDirectly(isChanged);
        } catch (const Refusal& refusal) {
            return refusal.what();
        } catch (const State::Error& error) {
            return error.what();
        }
        return {};
    }

    void removeRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key) override {
        if (const auto at = tables_.find({vrf.name, type}); at != tables_.end())
            operations_.changedDirectly(at->second->erase(routeKey(key)));
    }

    bool renameInterface(int ifindex, std::string_view name) override {
        bool rowsHoldNames = false;
        for (const auto& [place, table] : tables_) {
            const bool isRenamed = table->rename(ifindex, name);
            operations_.changedDirectly(isRenamed);
            rowsHoldNames = rowsHoldNames || !isRenamed;
        }
        return rowsHoldNames;
    }

    void forgetInterface(int ifindex) override {
        for (const auto& [place, table] : tables_)
            table->forget(ifindex);
    }

    std::optional<bool> multicastEnabled(const VrfConfig& vrf) const override {
        const State::Datum name(vrf.name);
        if (!operations_.value(RouteStatus::path, "vrfStatus", &name))
            return std::nullopt;
        const auto enabled = operations_.value(VrfEnabledStatus::path, "vrfEnabled", &name);
        return enabled && *enabled->boolean();
    }

    void eachRoute(const VrfConfig& vrf, RouteType type, const RouteVisitor& visit) const override {
        operations_.host().routes().eachRoute(vrf.name, type, [&](const ShownRoute& route) {
            visit(mfcKey(route.key), route.oifs);
            return true;
        });
    }

  private:
    WhyNot apply(std::span<const Change> changes) {
        try {
            operations_.apply(changes);
        } catch (const Refusal& refusal) {
            return refusal.what();
        }
        return {};
    }

    Operations& operations_;
    // By VRF and route type, those that have had a route.
    std::map<std::pair<std::string, RouteType>, std::unique_ptr<RouteTable>> tables_;
};

} // namespace

std::unique_ptr<TableSink> agentTables(Operations& operations) {
    return std::make_unique<AgentTables>(operations);
}

} // namespace Agent::Kernel
