// The Lumen source of multicast routes, in the shared-memory entity store. One StatusByVrf per route type, at
// mountPath(family, TYPE), holds one Status (the FIB) per VRF, named by the route type; a Status holds one
// Route per (source, group) with its interfaces. The routing side writes them; a Route's readers watch its
// version, which is advanced after the other fields. Table order and the search for candidates:
// records/RouteRows.h.
#pragma once

#include "records/IntfSet.h"
#include "records/RouteModes.h"
#include "records/RouteRows.h"
#include "records/VrfName.h"
#include "state/Collection.h"
#include "state/Entity.h"
#include "state/ShmObject.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Lumen::Multicast::Fib {

using Routing::Multicast::Fib::IpGenRouteKey;

class Route final : public State::Entity, public State::ShmObject {
  public:
    static constexpr State::AttributeId intfAttribute = 0;
    static constexpr State::AttributeId readyAttribute = 1;
    static constexpr State::AttributeId versionAttribute = 2;
    static constexpr std::uint32_t isReady = 1;

    explicit Route(const IpGenRouteKey& key)
        : key_(key) {}
    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    const IpGenRouteKey& key() const { return key_; }
    const L3::IntfSet& intf() const { return intf_; }
    void intfIs(L3::IntfSet intf);
    /// Readiness state: isReady, or anything else while the route must not be used.
    std::uint32_t ready() const { return ready_; }
    void readyIs(std::uint32_t ready);
    std::uint32_t version() const { return version_; }
    void versionIs(std::uint32_t version);
    /// Tells readers that the other fields are as they should be.
    void versionAdvance() { versionIs(version_ + 1); }

  private:
    IpGenRouteKey key_;
    L3::IntfSet intf_;
    std::uint32_t ready_ = isReady;
    std::uint32_t version_ = 0;
};

class RouteRow {
  public:
    using Value = State::Handle<Route>;
    RouteRow(const IpGenRouteKey&, Value route)
        : route_(std::move(route)) {}
    const IpGenRouteKey& key() const { return route_->key(); }
    Value& value() { return route_; }
    const Value& value() const { return route_; }

  private:
    Value route_;
};

/// The FIB of one VRF and route type.
class Status final : public State::Entity, public State::ShmObject {
  public:
    using RouteCollection =
        State::MapAttribute<IpGenRouteKey, RouteRow::Value, Routing::Multicast::Fib::RouteRows<RouteRow>>;
    static constexpr State::AttributeId routeAttribute = 0;

    /// `name` is the route type, userMode or sparseMode (RouteModes.h).
    explicit Status(std::string_view name)
        : name_(name) {}
    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    const std::string& name() const { return name_; }
    /// Inserts or replaces under the route's own key.
    void routeIs(const State::Handle<Route>& route) { route_.is(route->key(), route); }
    void routeDel(const IpGenRouteKey& key) { route_.del(key); }
    State::Handle<Route> route(const IpGenRouteKey& key) const {
        const auto* found = route_.find(key);
        return found == nullptr ? State::Handle<Route>() : *found;
    }
    /// visit(route handle) -> go on; in table order.
    template <class Visit>
    void routes(Visit visit) const {
        route_.visit(nullptr, [&](const IpGenRouteKey&, const State::Handle<Route>& route) {
            const State::Handle<Route> held = route; // the body may remove it
            return visit(held);
        });
    }
    const RouteCollection& routeCollection() const { return route_; }
    RouteCollection& routeCollection() { return route_; }

  private:
    std::string name_;
    RouteCollection route_{*this, routeAttribute,
                           State::seedConstant("Lumen::Multicast::Fib::Status::route")};
};

/// Key of a VRF's FIB: the VRF's name.
class MfibVrfName {
  public:
    static constexpr std::string_view typeName = "Lumen::Multicast::Fib::MfibVrfName";

    MfibVrfName() = default;
    explicit MfibVrfName(const L3::VrfName& vrfName)
        : vrfName_(vrfName) {}
    static MfibVrfName fromString(std::string_view text) { return MfibVrfName(L3::VrfName(text)); }
    const std::string& stringValue() const { return vrfName_.stringValue(); }
    operator std::string_view() const { return vrfName_; }
    std::uint32_t hash(std::uint32_t seed) const { return vrfName_.hash(seed); }
    auto operator<=>(const MfibVrfName&) const = default;

  private:
    L3::VrfName vrfName_;
};

class StatusByVrf final : public State::Entity, public State::ShmObject {
  public:
    /// `name` is the route type; the FIBs in it carry the same name.
    explicit StatusByVrf(std::string_view name)
        : name_(name) {}
    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    const std::string& name() const { return name_; }
    /// "lumen/multicast/fib/ipv4/NAME" (or ipv6).
    static std::string mountPath(L3::AddressFamily family, std::string_view name);

    STATE_MAP(0, status, MfibVrfName, State::Handle<Status>,
              State::seedConstant("Lumen::Multicast::Fib::StatusByVrf::status"))

  private:
    std::string name_;
};

} // namespace Lumen::Multicast::Fib
