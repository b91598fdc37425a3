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

/// The key of the row that a route of the kernel becomes.
RouteKey rowKey(const MfcKey& key);
/// The other way round; nothing for a key that no route of the kernel becomes.
std::optional<MfcKey> kernelKey(const RouteKey& key);

/// Receives the interfaces' names of one row, in any order.
using RowVisitor = std::function<void(std::span<const std::string_view>)>;

/// A walk over the rows of one table, part by part, while others change the table. A row that is there all the time is
/// met, once at least; one that comes or goes meanwhile may be met.
class RowWalk {
  public:
    virtual ~RowWalk() = default;
    /// Visits the keys of up to max further rows; false when none is left.
    virtual bool next(std::size_t max, const std::function<void(const RouteKey&)>& visit) = 0;
    /// Rows of the table now.
    virtual std::size_t size() const = 0;
};

class TableSink {
  public:
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
    virtual std::unique_ptr<RowWalk> rows(const VrfConfig& vrf, RouteType type) const = 0;
    /// Shows one row; false where there is none.
    virtual bool row(const VrfConfig& vrf, RouteType type, const RouteKey& key,
                     const RowVisitor& visit) const = 0;
};

/// The agent's own tables. @param operations outlives them.
std::unique_ptr<TableSink> agentTables(Operations& operations);

} // namespace Agent::Kernel
