// What the VRF directory does for one VRF: adding it to the route map with its route tables, and taking it
// away.
//
// Two things that look like slips are meant. The Lumen paths do not name the VRF: all VRFs share the two
// StatusByVrf entities, which are mounted again with every VRF and unmounted with the removal of any one; the
// handles in the route map stay live. And the tables of the VRF "default", which the mounter mounts as well,
// are mounted and unmounted here like any other's.
#include "KestrelNat/KestrelNatMulticastMounter/NatVrfDirSm.h"
#include "KestrelNat/KestrelNatMulticastMounter/RoutePaths.h"
#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"
#include "state/Fatal.h"
#include "state/Trace.h"

TRACE_FACILITY("KestrelNatMulticastMounter");

namespace KestrelNat {

namespace {

using LumenStatusByVrf = Lumen::Multicast::Fib::StatusByVrf;
using QuillStatus = Quill::Multicast::Fib::Status;

// The Lumen source's static mode; the route map's keys then agree with the route-type list (RouteTypes.h).
constexpr const char* lumenStaticMode = Routing::Multicast::Fib::userMode;

std::string lumenPath(std::string_view mode) {
    return LumenStatusByVrf::mountPath(L3::AddressFamily::ipv4, mode);
}

State::Handle<LumenStatusByVrf> mountLumenFibs(State::ShmEntityManager& shmemEm, std::string_view mode) {
    const std::string path = lumenPath(mode);
    shmemEm.doMount(path, "Lumen::Multicast::Fib::StatusByVrf",
                    State::EntityMount{.writer = false, .recursive = true, .notify = true});
    return shmemEm.entity<LumenStatusByVrf>(path);
}

State::Handle<QuillStatus> mountQuillTable(State::ShmEntityManager& shmemEm, const L3::VrfName& vrfName,
                                           std::string_view mode) {
    const std::string path = formatMulticastRoutePath(vrfName, mode);
    shmemEm.doMount(path, "Quill::Multicast::Fib::Status", State::TableMount{.mode = 3, .collections = {}});
    return shmemEm.entity<QuillStatus>(path);
}

// The VRF's FIB of that mode, or null; `fibs` is what is mounted for the mode.
State::Handle<Lumen::Multicast::Fib::Status> findLumenFib(const State::ShmEntityManager& shmemEm,
                                                          const LumenStatusByVrf& fibs,
                                                          const L3::VrfName& vrfName, std::string_view mode) {
    shmemEm.assertSafeToAccess(&fibs, lumenPath(mode));
    return fibs.status(Lumen::Multicast::Fib::MfibVrfName(vrfName));
}

} // namespace

void NatVrfDirSm::handleInitialized() {
    TRACE(6, "NatVrfDirSm::", "handleInitialized");
    if (!routingVrfEnabledStatus_)
        return;
    for (const auto& [vrfName, enabled] : routingVrfEnabledStatus_->vrfEnabled())
        handleVrf(vrfName);
}

void NatVrfDirSm::handleVrf(const L3::VrfName& vrfName) {
    TRACE(8, "NatVrfDirSm::", "handleVrf", " vrfName=", vrfName);
    if (!routingVrfEnabledStatus_ || !routingVrfEnabledStatus_->vrfEnabled(vrfName)) {
        // Removal: the flag alone drives it. An entry that vanished from the route status leaves the VRF
        // added.
        removeVrf(vrfName);
        return;
    }
    if (!routingHwRouteStatus_)
        return;
    const auto status = routingHwRouteStatus_->vrfStatus(vrfName);
    if (!status)
        return;
    const std::uint32_t vrfId = status->vrfId();
    if (vrfId == 0 && vrfName != "default") {
        TRACE(8, "NatVrfDirSm::", "handleVrf", " will wait for vrfId to be updated for vrfName=", vrfName);
        return;
    }
    if (!mrouteRouteMap_ || !shmemEm_)
        return;
    TRACE(8, "NatVrfDirSm::", "handleVrf", " adding vrfName=", vrfName);
    FATAL_ASSERT(!mrouteRouteMap()->vrfNameToIdHas(vrfName),
                 "!mrouteRouteMap()->vrfNameToIdHas( vrfName ) && \"vrfId should not change here\"");
    const L3::VrfId id(vrfId);
    mrouteRouteMap_->vrfNameToIdIs(vrfName, id);
    if (toggleKestrelNatMfibLumenEnabled()) {
        const auto statusByVrf = mountLumenFibs(*shmemEm_, lumenStaticMode);
        FATAL_ASSERT(!!statusByVrf, "!!statusByVrf && \"statusByVrf not mounted\"");
        if (const auto fib = findLumenFib(*shmemEm_, *statusByVrf, vrfName, lumenStaticMode))
            mrouteRouteMap_->mfibIs({.vrfId = id, .routeName = lumenStaticMode}, fib);
        else
            TRACE(8, "Lumen mfib not found for static mode, vrfName=", vrfName);
        const auto statusByVrfSparse = mountLumenFibs(*shmemEm_, SPARSE_MODE);
        FATAL_ASSERT(!!statusByVrfSparse, "!!statusByVrfSparse && \"statusByVrfSparse not mounted\"");
        if (const auto fib = findLumenFib(*shmemEm_, *statusByVrfSparse, vrfName, SPARSE_MODE))
            mrouteRouteMap_->mfibIs({.vrfId = id, .routeName = SPARSE_MODE}, fib);
        else
            TRACE(8, "Lumen mfib not found for sparsemode, vrfName=", vrfName);
    } else {
        const auto mcastRouteStatic = mountQuillTable(*shmemEm_, vrfName, STATIC_MODE);
        FATAL_ASSERT(!!mcastRouteStatic, "!!mcastRouteStatic && \"mcastRouteStatic not mounted\"");
        mrouteRouteMap_->mrouteRouteIs({.vrfId = id, .routeName = STATIC_MODE}, mcastRouteStatic);
        const auto mcastRouteSparse = mountQuillTable(*shmemEm_, vrfName, SPARSE_MODE);
        FATAL_ASSERT(!!mcastRouteSparse, "!!mcastRouteSparse && \"mcastRouteSparse not mounted\"");
        mrouteRouteMap_->mrouteRouteIs({.vrfId = id, .routeName = SPARSE_MODE}, mcastRouteSparse);
    }
}

void NatVrfDirSm::removeVrf(const L3::VrfName& vrfName) {
    if (!mrouteRouteMap_ || !mrouteRouteMap_->vrfNameToIdHas(vrfName))
        return;
    TRACE_AS(8, "handleVrf", "NatVrfDirSm::", "handleVrf", " removing vrfName=", vrfName);
    const L3::VrfId id = mrouteRouteMap_->vrfNameToIdDel(vrfName);
    const auto unmount = [this](const std::string& path) {
        if (shmemEm_)
            shmemEm_->doUnmount(path);
    };
    if (toggleKestrelNatMfibLumenEnabled()) {
        mrouteRouteMap_->mfibDel({.vrfId = id, .routeName = lumenStaticMode});
        unmount(lumenPath(lumenStaticMode));
        mrouteRouteMap_->mfibDel({.vrfId = id, .routeName = SPARSE_MODE});
        unmount(lumenPath(SPARSE_MODE));
    } else {
        mrouteRouteMap_->mrouteRouteDel({.vrfId = id, .routeName = STATIC_MODE});
        unmount(formatMulticastRoutePath(vrfName, STATIC_MODE));
        mrouteRouteMap_->mrouteRouteDel({.vrfId = id, .routeName = SPARSE_MODE});
        unmount(formatMulticastRoutePath(vrfName, SPARSE_MODE));
    }
}

} // namespace KestrelNat
