// Requests of the mroute service: the record of who asks for which flow.
#include "KestrelNat/KestrelNatMulticastSm/NatMrouteSm.h"
#include "KestrelNat/KestrelNatMulticastSm/Requesters.h"
#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"
#include "state/Fatal.h"
#include "state/Trace.h"

TRACE_FACILITY("KestrelNatMulticastSm");

namespace KestrelNat {

void NatMrouteSm::handleMrouteReq(const NatMrouteKey& req) {
    const bool added = mrouteRequestSet_ && mrouteRequestSet_->mrouteReqHas(req);
    TRACE(8, "handleMrouteReq", added ? " adding" : " deleting", " request ", req);
    FATAL_ASSERT(!req.intf.isEmpty() && req.vlanId != 0,
                 "req.intf().stringValue() != \"\" && req.vlanId() != 0");

    const auto sg = MrouteSourceAndGroup::of(req);
    if (added) {
        watchedMroutesWrap(req.vrfId)->add(sg, req);
        recordRequester(vrfIdSourceAndGroupToIntf_, req);
    } else {
        removeWatchedMroute(req.vrfId, sg, req);
        forgetRequester(vrfIdSourceAndGroupToIntf_, req);
    }

    for (const std::string& routeType : routeTypes())
        updateMrouteResponseMap(req, routeType, added);
}

void NatMrouteSm::handleMrouteReq() {
    if (!mrouteRouteMap_) {
        TRACE(8, "handleMrouteReq", " not handling since NatMrouteSm hasn't been initialized");
        return;
    }
    TRACE(8, "handleMrouteReq", " checking all mroutes being watched");
    if (mrouteRequestSet_)
        for (const NatMrouteKey& req : mrouteRequestSet_->mrouteReq())
            handleMrouteReq(NatMrouteKey(req)); // a copy: a subscriber may withdraw it
    if (multicastSmStatus_)
        multicastSmStatus_->mrouteSmReadyIs(true);
}

} // namespace KestrelNat
