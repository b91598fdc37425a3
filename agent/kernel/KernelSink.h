// What the mirror of the kernel writes to: the agent's route tables, as far as the mirror needs to know them.
//
// The agent implements it over the FIB source in force and owns it; MfcMirror is its only caller. Calls come
// in an order that the tables can follow: a VRF before its routes, routes gone before their VRF, multicast
// switched off before a VRF goes. Each call is a real difference to what was accepted before. A call that
// returns false has changed nothing and says why; the mirror keeps the change pending, shows it, and calls
// again when something that may matter has changed. No call may re-enter the mirror.
#pragma once

#include "agent/kernel/KernelConfig.h"
#include "agent/kernel/MfcMessage.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Agent::Kernel {

enum class RouteType : std::uint8_t { staticRoute, sparseMode };
constexpr RouteType routeTypes[] = {RouteType::staticRoute, RouteType::sparseMode};

/// "static" or "sparse".
constexpr std::string_view routeTypeText(RouteType type) {
    return type == RouteType::staticRoute ? "static" : "sparse";
}

/// An outgoing interface. The index identifies it while it exists; the name can change.
struct Oif {
    int ifindex = 0;
    std::string_view name;
};

class KernelSink {
  public:
    /// Receives one row: its key and its interfaces' names, in any order.
    using RouteVisitor = std::function<void(const MfcKey&, std::span<const std::string_view>)>;

    virtual ~KernelSink() = default;

    /// Enters a VRF with its tables, or switches multicast in it.
    virtual bool vrf(const VrfConfig& vrf, bool multicastEnabled, std::string& why) = 0;
    /// Removes a VRF that has no routes and multicast switched off.
    virtual bool vrfGone(const VrfConfig& vrf, std::string& why) = 0;

    /// Adds a route, or gives it other interfaces; the route is ready also where it has none. Source 0 means
    /// 0.0.0.0/0, other addresses are /32.
    virtual bool route(const VrfConfig& vrf, RouteType type, const MfcKey& key, std::span<const Oif> oifs,
                       std::string& why) = 0;
    virtual void routeGone(const VrfConfig& vrf, RouteType type, const MfcKey& key) = 0;

    /// Renames an interface that routes were offered with, accepted or not.
    /// @return whether routes hold names themselves: the mirror then gives those that have the interface
    /// anew.
    virtual bool interfaceNamed(int ifindex, std::string_view name) = 0;
    /// An interface that routes were offered with is gone; no accepted route has it any more.
    virtual void interfaceGone(int ifindex) = 0;

    /// What the tables hold, for a comparison with the kernel: whether multicast is enabled (nothing where
    /// the VRF is not there), and the rows.
    virtual std::optional<bool> multicastEnabled(const VrfConfig& vrf) const = 0;
    virtual void eachRoute(const VrfConfig& vrf, RouteType type, const RouteVisitor& visit) const = 0;
};

} // namespace Agent::Kernel
