// What the mirror of the kernel writes to: the agent's tables, as far as the mirror needs to know them.
//
// Mirror, its MirroredVrfs and Verification call it, in an order that the tables can follow:
// a VRF before its routes, routes gone before their VRF, multicast switched off before a VRF goes. Each call is a real
// difference to what was accepted before. What returns a text has changed nothing and says why; the mirror keeps the
// change pending and calls again when something that may matter has changed. No call may re-enter the mirror.
#pragma once

#include "agent/host/RouteSource.h"
#include "agent/kernel/KernelConfig.h"
#include "agent/kernel/KernelMessage.h"

#include <functional>
#include <memory>
#include <span>

namespace Agent {
class Operations;
}

namespace Agent::Kernel {

/// Why the tables refuse a change; empty: it is done.
using WhyNot = std::string;

class TableSink {
  public:
    /// Receives one row: its key and its interfaces' names, in any order.
    using RouteVisitor = std::function<void(const MfcKey&, std::span<const std::string_view>)>;

    virtual ~TableSink() = default;

    /// Enters a VRF with its tables, or switches multicast in it.
    virtual WhyNot putVrf(const VrfConfig& vrf, bool multicastEnabled) = 0;
    /// Removes a VRF that has no routes and multicast switched off.
    virtual WhyNot removeVrf(const VrfConfig& vrf) = 0;

    /// Adds a route, or gives it other interfaces; the route is ready also where it has none. Source 0 means
    /// 0.0.0.0/0, other addresses are /32.
    virtual WhyNot putRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key,
                            std::span<const Oif> oifs) = 0;
    virtual void removeRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key) = 0;

    /// Renames an interface that routes were offered with, accepted or not.
    /// @return whether routes hold names themselves: the mirror then gives those that have the interface anew.
    virtual bool renameInterface(int ifindex, std::string_view name) = 0;
    /// An interface that routes were offered with is gone; no accepted route has it any more.
    virtual void forgetInterface(int ifindex) = 0;

    /// What the tables hold: whether multicast is enabled (nothing where the VRF is not there), and the rows.
    virtual std::optional<bool> multicastEnabled(const VrfConfig& vrf) const = 0;
    virtual void eachRoute(const VrfConfig& vrf, RouteType type, const RouteVisitor& visit) const = 0;
};

/// The agent's own tables. @param operations outlives them.
std::unique_ptr<TableSink> agentTables(Operations& operations);

} // namespace Agent::Kernel
