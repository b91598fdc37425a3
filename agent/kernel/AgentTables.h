// The agent's tables as the mirror of the kernel writes them: VRFs by way of Operations, so that the guards bind
// this source as they bind clients; what they refuse comes back as the reason. Routes, of which there are a hundred
// thousand, are written directly (RouteTable): nothing in their IPv4 keys and interfaces could be refused.
//
// KernelSource owns it; the mirror is its only caller.
#pragma once

#include "agent/changes/Operations.h"
#include "agent/kernel/TableSink.h"

#include <map>
#include <memory>

namespace Agent::Kernel {

class AgentTables final : public TableSink {
  public:
    /// @param operations outlives it.
    explicit AgentTables(Operations& operations)
        : operations_(operations) {}

    WhyNot putVrf(const VrfConfig& vrf, bool multicastEnabled) override;
    WhyNot removeVrf(const VrfConfig& vrf) override;
    WhyNot putRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key,
                    std::span<const Oif> oifs) override;
    void removeRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key) override;
    bool renameInterface(int ifindex, std::string_view name) override;
    void forgetInterface(int ifindex) override;
    std::optional<bool> multicastEnabled(const VrfConfig& vrf) const override;
    void eachRoute(const VrfConfig& vrf, RouteType type, const RouteVisitor& visit) const override;

  private:
    WhyNot apply(std::span<const Change> changes);

    Operations& operations_;
    // By VRF and route type, those that have had a route.
    std::map<std::pair<std::string, RouteType>, std::unique_ptr<RouteTable>> tables_;
};

} // namespace Agent::Kernel
