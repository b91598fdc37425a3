// The Quill source of multicast routes: Quill::Multicast::Fib::Status, one table of the shared-memory table
// store per VRF and route type, at "routing/multicast/routestatus/VRF/TYPE". A route names its outgoing
// interfaces by a list of indexes; a second collection of the same table maps an index to an interface. The
// routing side writes both. Table order and the search for candidates: records/RouteRows.h.
#pragma once

#include "records/IntfId.h"
#include "records/OifIndex.h"
#include "records/RouteModes.h"
#include "records/RouteRows.h"
#include "state/Collection.h"
#include "state/ShmTable.h"

#include <string>
#include <string_view>
#include <vector>

namespace Quill::Multicast::Fib {

using Routing::Multicast::Fib::IpGenRouteKey;

/// What a row holds beside its key. The default route leads nowhere: its first index is the null index.
struct Route {
    OifIndexList oifs;

    static constexpr auto describe() {
        return State::describe("Quill::Multicast::Fib::Route", State::field("oifs", &Route::oifs));
    }
    auto operator<=>(const Route&) const = default;
};

class RouteRow {
  public:
    using Value = Route;
    RouteRow(const IpGenRouteKey& key, Route route)
        : key_(key)
        , route_(std::move(route)) {}
    const IpGenRouteKey& key() const { return key_; }
    Route& value() { return route_; }
    const Route& value() const { return route_; }

  private:
    IpGenRouteKey key_;
    Route route_;
};

class Status final : public State::ShmTable {
  public:
    using RouteCollection =
        State::MapAttribute<IpGenRouteKey, Route, Routing::Multicast::Fib::RouteRows<RouteRow>>;
    static constexpr State::AttributeId routeAttribute = 0;

    explicit Status(std::string_view tableName)
        : ShmTable(tableName, "") {}
    /// "routing/multicast/routestatus/VRF/MODE"; `mode` is staticMode or sparseMode (RouteModes.h).
    static std::string mountPath(std::string_view vrfName, std::string_view mode);
    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    /// Inserts or replaces; an equal route is silent.
    void routeIs(const IpGenRouteKey& key, const Route& route) { route_.is(key, route); }
    void routeDel(const IpGenRouteKey& key) { route_.del(key); }
    bool routeHas(const IpGenRouteKey& key) const { return route_.has(key); }
    /// Reads a row: null when absent. CorruptionError.
    const Route* route(const IpGenRouteKey& key) const {
        reading();
        return route_.find(key);
    }
    /// visit(key) -> go on; in table order. Each step is a read: CorruptionError ends the walk.
    template <class Visit>
    void routes(Visit visit) const {
        route_.visit(nullptr, [&](const IpGenRouteKey& key, const Route&) {
            reading();
            return visit(IpGenRouteKey(key)); // a copy: the body may remove the row
        });
    }
    const RouteCollection& routeCollection() const { return route_; }
    RouteCollection& routeCollection() { return route_; }

    /// Reads the interface of an index: the empty one when absent. CorruptionError.
    L3::IntfId intf(OifIndex index) const {
        reading();
        if (intfsAsOf_ != oifIndexIntfCollection().changes())
            fillIntfs();
        return index.value() < intfs_.size() ? intfs_[index.value()] : L3::IntfId();
    }

    STATE_MAP(1, oifIndexIntf, OifIndex, L3::IntfId,
              State::seedConstant("Quill::Multicast::Fib::Status::oifIndexIntf"))

  private:
    void fillIntfs() const;

    // The interfaces by index, as of a change of their collection: each route reads some.
    mutable std::vector<L3::IntfId> intfs_;
    mutable std::uint32_t intfsAsOf_ = 0;
    RouteCollection route_{*this, routeAttribute,
                           State::seedConstant("Quill::Multicast::Fib::Status::route")};
};

} // namespace Quill::Multicast::Fib
