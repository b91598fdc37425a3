// Egress interfaces of the mroute service: through which interfaces a flow leaves. Only the rows that can
// match are visited (records/RouteRows.h), in table order, so that the result equals that of a walk over the
// whole table.
#include "KestrelNat/KestrelNatMulticastSm/NatMrouteSm.h"
#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"
#include "records/IntfSet.h"
#include "state/Errors.h"
#include "state/Fatal.h"
#include "state/Trace.h"

TRACE_FACILITY("KestrelNatMulticastSm");

namespace KestrelNat {

namespace {

using Routing::Multicast::Fib::IpGenRouteKey;

// The function whose rule this is, as traces name it.
constexpr const char* resolving = "getEgressIntfsFromCurrentVrf";

// Which routes a request matches.
struct RouteMatch {
    L3::IpAddr source; // zero: any
    L3::IpAddr group;  // zero: any
    IpGenRouteKey routeKey;

    explicit RouteMatch(const NatMrouteKey& reqKey)
        : source(reqKey.sourceIp)
        , group(reqKey.groupIp)
        , routeKey(IpGenRouteKey::host(source, group)) {}

    // An (S,G) request takes the first match alone. This is meant: in table order that is the row by which
    // the packets are forwarded, the (S,G) route or else a (*,G) route.
    bool isFirstOnly() const { return !source.isZero() && !group.isZero(); }

    // Prefix lengths count for the equal key only.
    bool matches(const IpGenRouteKey& candidate) const {
        const L3::IpAddr itsSource = candidate.source.ipv4();
        const L3::IpAddr itsGroup = candidate.group.ipv4();
        const bool starG = itsSource.isZero() && itsGroup == group;
        if (starG || candidate == routeKey)
            return true;
        return group.isZero() ? itsSource == source : source.isZero() && itsGroup == group;
    }
};

// Calls collect(routeKey, row) for the rows that the request takes, in table order.
template <class Routes, class Collect>
void eachMatch(const RouteMatch& match, const Routes& routes, Collect collect) {
    routes.storage().candidates(match.source, match.group,
                                [&](const IpGenRouteKey& routeKey, const auto& row) {
                                    if (!match.matches(routeKey))
                                        return true;
                                    collect(routeKey, row);
                                    return !match.isFirstOnly();
                                });
}

// ---- Lumen

// The interfaces of a route: the route's own array, unless it names the empty interface, which no answer
// holds.
L3::IntfSet egressOf(const Lumen::Multicast::Fib::Route& route) {
    TRACE_AS(8, resolving, "Iterating oifs for routeKey=", route.key());
    L3::IntfSet intfs = route.intf();
    for (const L3::IntfId intf : route.intf())
        TRACE_AS(9, resolving, "oif intf: ", intf);
    intfs.erase(L3::IntfId());
    return intfs;
}

// ---- Quill: a damaged row reads as the default item, and resolution goes on

const Quill::Multicast::Fib::Route& readRoute(const Quill::Multicast::Fib::Status& table,
                                              const IpGenRouteKey& routeKey) {
    static const Quill::Multicast::Fib::Route defaultRoute;
    try {
        const auto* route = table.route(routeKey);
        return route == nullptr ? defaultRoute : *route;
    } catch (const State::CorruptionError& error) {
        table.doCorruptionDetected(error.what());
        return defaultRoute;
    }
}

L3::IntfId readIntf(const Quill::Multicast::Fib::Status& table, Quill::Multicast::Fib::OifIndex oifIndex) {
    try {
        return table.intf(oifIndex);
    } catch (const State::CorruptionError& error) {
        table.doCorruptionDetected(error.what());
        return {};
    }
}

// Adds the interfaces of a row: its list of indexes ends at the null index; one above raises RangeError.
void addEgressOf(const Quill::Multicast::Fib::Status& table, const IpGenRouteKey& routeKey,
                 L3::IntfUnion& egress) {
    TRACE_AS(8, resolving, "Iterating oifs for routeKey=", routeKey);
    for (const std::uint16_t number : readRoute(table, routeKey).oifs) {
        const Quill::Multicast::Fib::OifIndex oifIndex(number);
        if (oifIndex.isNull())
            return;
        const L3::IntfId intf = readIntf(table, oifIndex);
        TRACE_AS(9, resolving, "oifIndex: ", oifIndex, ", oifIndexIntf: ", intf);
        if (!intf.isEmpty())
            egress.add(intf);
    }
}

} // namespace

NatMrouteOifSet NatMrouteSm::getEgressIntfsForMrouteKey(const NatMrouteKey& reqKey,
                                                        const QuillRoutes& quillRoutes,
                                                        const LumenMfib& lumenMfib) const {
    TRACE(8, "getEgressIntfsForMrouteKey", " reqKey=", reqKey);
    FATAL_ASSERT(!lumenMfib != !quillRoutes,
                 "( !!lumenMfib ^ !!quillRoutes ) && \"Only one mfib must be True\"");
    if (capabilityConfig_ && capabilityConfig_->egressFromAllVrfs())
        return getEgressIntfsFromAllVrfs(reqKey);
    NatMrouteOifSet egressIntfs;
    getEgressIntfsFromCurrentVrf(reqKey, quillRoutes, lumenMfib, egressIntfs);
    return egressIntfs;
}

NatMrouteOifSet NatMrouteSm::getEgressIntfsFromAllVrfs(const NatMrouteKey& reqKey) const {
    NatMrouteOifSet egressIntfs;
    if (!mrouteRouteMap_)
        return egressIntfs;
    for (const auto& member : mrouteRouteMap_->vrfNameToId()) {
        for (const std::string& routeType : routeTypes()) {
            const RouteTable table = routeTable({.vrfId = member.value, .routeName = routeType});
            getEgressIntfsFromCurrentVrf(reqKey, table.quillRoutes, table.lumenMfib, egressIntfs);
        }
    }
    return egressIntfs;
}

void getEgressIntfsFromCurrentVrf(const NatMrouteKey& reqKey, const NatMrouteSm::QuillRoutes& quillRoutes,
                                  const NatMrouteSm::LumenMfib& lumenMfib, NatMrouteOifSet& egressIntfs) {
    TRACE(8, "getEgressIntfsFromCurrentVrf", " reqKey=", reqKey);
    FATAL_ASSERT(!lumenMfib != !quillRoutes,
                 "( !!lumenMfib ^ !!quillRoutes ) && \"Only one mfib must be True\"");
    FATAL_ASSERT(!reqKey.sourceIp.isZero() || !reqKey.groupIp.isZero(),
                 "!( isDNAT && isSNAT ) && \"reqKey is (*, *) in response map\"");

    const RouteMatch match(reqKey);
    L3::IntfUnion egress;
    if (toggleKestrelNatMfibLumenEnabled() && lumenMfib) {
        eachMatch(match, lumenMfib->routeCollection(),
                  [&](const IpGenRouteKey&, const auto& route) { egress.add(egressOf(*route)); });
    } else if (quillRoutes) {
        eachMatch(match, quillRoutes->routeCollection(), [&](const IpGenRouteKey& routeKey, const auto&) {
            addEgressOf(*quillRoutes, routeKey, egress);
        });
    }
    egressIntfs.oifIs(NatMrouteOifSet(egress.take()));
}

} // namespace KestrelNat
