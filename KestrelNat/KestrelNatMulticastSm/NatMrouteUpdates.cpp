// Route updates of the mroute service: from a changed route to the requests that it concerns, and to no
// other.
#include "KestrelNat/KestrelNatMulticastSm/NatMrouteSm.h"
#include "KestrelNat/KestrelNatMulticastSm/Requesters.h"
#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"
#include "state/Errors.h"
#include "state/Fatal.h"
#include "state/Trace.h"

#include <array>
#include <cstddef>

TRACE_FACILITY("KestrelNatMulticastSm");

namespace KestrelNat {

NatMrouteSm::RouteTable NatMrouteSm::routeTable(const NatMcastRouteKey& key) const {
    RouteTable table;
    if (mrouteRouteMap_) {
        if (const auto* quillRoutes = mrouteRouteMap_->mrouteRouteCollection().find(key))
            table.quillRoutes = *quillRoutes;
        if (const auto* lumenMfib = mrouteRouteMap_->mfibCollection().find(key))
            table.lumenMfib = *lumenMfib;
    }
    return table;
}

void NatMrouteSm::handleMcastRouteUpdate(const IpGenRouteKey& routeKey, const NatMcastRouteKey& natMcastKey) {
    const RouteTable table = routeTable(natMcastKey);
    FATAL_ASSERT(!table.lumenMfib != !table.quillRoutes,
                 "( !!lumenMfib ^ !!quillRoutes ) && \"Only one mfib must be True\"");
    const std::string& routeName = table.name();
    TRACE(8, "handleMcastRouteUpdate", " handling update for mroute (S=", routeKey.source,
          " G=", routeKey.group, ") of type ", routeName);

    if (toggleKestrelNatMfibLumenEnabled() && table.lumenMfib) {
        // A route that is gone is no route that is not ready: what it left in the answers is to go.
        const auto* route = table.lumenMfib->routeCollection().find(routeKey);
        if (route != nullptr && (*route)->ready() != Lumen::Multicast::Fib::Route::isReady) {
            TRACE(8, "handleMcastRouteUpdate", " skipping mroute (S=", routeKey.source, " G=", routeKey.group,
                  ") - route not ready");
            return;
        }
    }

    const auto sg = State::whole<MrouteSourceAndGroup>(routeKey.source.ipv4(), routeKey.group.ipv4());
    const NatMrouteMatcher::Waiting waiting = watchedMroutesWrap(natMcastKey.vrfId)->waiting(sg);
    if (!waiting) {
        TRACE(9, "handleMcastRouteUpdate", " skipping mroute= (S=", routeKey.source, " G=", routeKey.group,
              ") of type ", routeName);
        return;
    }

    const Flows sgs = concernedFlows(natMcastKey.vrfId, sg, waiting);
    FATAL_ASSERT(!sgs.empty(), "!sgs.empty() && \"sourceAndGroupToIntf does not have the requested entry\"");
    for (const VrfIdMrouteSourceAndGroup& vsg : sgs) {
        TRACE(8, "found sg=(", vsg.sg.sourceIp, ", ", vsg.sg.groupIp, ")");
        // Whoever hears of an answer may change the record: behind the first flow it is asked again.
        const bool isFirst = &vsg == sgs.begin();
        const auto* requesters = isFirst ? sgs.firstRequesters() : vrfIdSourceAndGroupToIntf_.find(vsg);
        FATAL_ASSERT(requesters != nullptr, "vrfIdSourceAndGroupToIntfHas( vsg ) && "
                                            "\"sourceAndGroupToIntf does not have the requested entry\"");
        requesters->iv().forEach([&](const MrouteIntfAndVlan& requester) { // holds the set as it is now
            answerRequester(vsg, requester, table);
        });
    }
}

// A (*,G) route concerns the (*,G) requests alone, though it also answers (S,G) requests that no route of
// their own answers. This is meant; those are looked at again with the next pass over all requests. A route
// of group zero yields (S, 0) twice, and its requests are answered twice: this is meant too, as it costs
// nothing and no such route is real.
//
// The record is asked for those flows alone for which the matcher knows requests: it has no others.
NatMrouteSm::Flows NatMrouteSm::concernedFlows(L3::VrfId vrfId, const MrouteSourceAndGroup& sg,
                                               NatMrouteMatcher::Waiting waiting) const {
    Flows flows;
    const auto appendIf = [&](bool waits, const MrouteSourceAndGroup& flow) {
        if (!waits)
            return;
        const auto vsg = State::whole<VrfIdMrouteSourceAndGroup>(vrfId, flow);
        if (const auto* requesters = vrfIdSourceAndGroupToIntf_.find(vsg))
            flows.append(vsg, requesters);
    };
    if (sg.sourceIp.isZero()) {
        const auto vsg = State::whole<VrfIdMrouteSourceAndGroup>(vrfId, sg);
        flows.append(vsg, vrfIdSourceAndGroupToIntf_.find(vsg));
        return flows;
    }
    appendIf(waiting.own, sg);
    appendIf(waiting.anySource, State::whole<MrouteSourceAndGroup>(L3::IpAddr(), sg.groupIp));
    appendIf(waiting.anyGroup, State::whole<MrouteSourceAndGroup>(sg.sourceIp, L3::IpAddr()));
    return flows;
}

// The request's key is rebuilt from what the record keeps, with type 0 whatever type the request carried.
// This is meant: the record knows no types, and the mroute service's own requests are of type 0.
void NatMrouteSm::answerRequester(const VrfIdMrouteSourceAndGroup& vsg, const MrouteIntfAndVlan& requester,
                                  const RouteTable& table) {
    const NatMrouteKey key = requestKey(vsg, requester, NatRequestType{0});
    const ResponsePlace place = responsePlace(key, table.name());
    const NatMrouteOifSet oifs = getEgressIntfsForMrouteKey(key, table.quillRoutes, table.lumenMfib);
    writeResponse(oifs, place, table.name(), true);
    TRACE_AS(8, "handleMcastRouteUpdate", "setting ", key, " to key ", oifs);
}

void NatMrouteSm::handleMcastRouteUpdateAll(const NatMcastRouteKey& natMcastKey) {
    TRACE(8, "handleMcastRouteUpdateAll");
    const RouteTable table = routeTable(natMcastKey);
    FATAL_ASSERT(!table.lumenMfib != !table.quillRoutes,
                 "( !!lumenMfib ^ !!quillRoutes ) && \"Only one mfib must be True\"");
    handleMrouteReq();
    TRACE(8, "handleMcastRouteUpdateAll", " handling all known mroutes of type ", table.name());

    const auto handleRoute = [&](IpGenRouteKey routeKey) { // by value: the row may go while it is handled
        handleMcastRouteUpdate(routeKey, natMcastKey);
        return true;
    };
    if (table.lumenMfib) {
        table.lumenMfib->routes([&](const auto& route) { return handleRoute(route->key()); });
        return;
    }
    try {
        table.quillRoutes->routes(handleRoute);
    } catch (const State::CorruptionError& error) {
        table.quillRoutes->doCorruptionDetected(error.what());
    }
}

// Makes a matcher where there is none, also for a route update of a VRF without requests. This is meant: the
// empty matcher stays until the VRF's last request goes.
State::Handle<NatMrouteMatcher> NatMrouteSm::watchedMroutesWrap(L3::VrfId vrfId) {
    State::Handle<NatMrouteMatcher> matcher = watchedMroutes(vrfId);
    if (!matcher) {
        matcher = natMrouteMatcherFactory();
        watchedMroutesIs(vrfId, matcher);
    }
    return matcher;
}

void NatMrouteSm::removeWatchedMroute(L3::VrfId vrfId, const MrouteSourceAndGroup& sg,
                                      const NatMrouteKey& key) {
    const State::Handle<NatMrouteMatcher> matcher = watchedMroutes(vrfId);
    if (!matcher)
        return;
    matcher->remove(sg, key);
    if (matcher->empty())
        watchedMroutesDel(vrfId);
}

} // namespace KestrelNat
