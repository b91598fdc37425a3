#include "KestrelNat/KestrelNatMulticastMounter/NatMulticastMounter.h"

#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"
#include "state/Trace.h"
#include "state/TypeRegistry.h"

TRACE_FACILITY("KestrelNatMulticastMounter");

namespace KestrelNat {

namespace {

using KestrelCommon::MrouteGroup::MgroupColl;
using KestrelCommon::MrouteGroup::MrouteColl;
using Routing::Hardware::RouteStatus;
using Routing::Multicast::Fib::VrfEnabledStatus;

template <class T>
void declare(State::MountGroup& group) {
    group.doMount(
        {.path = T::path, .typeName = std::string(T::type().name()), .flags = State::mountFlags("r")});
}

State::Handle<NatMulticastMounter> makeMounter(std::string_view name) {
    return State::makeHandle<NatMulticastMounter>(name);
}

} // namespace

STATE_FACTORY("KestrelNat::NatMulticastMounter", &makeMounter);

NatMulticastMounter::~NatMulticastMounter() {
    mgroupSm_.reset();
    mrouteSm_.reset();
    natVrfDirSm_.reset();
    mrouteRouteMap_.reset();
}

void NatMulticastMounter::doInit() {
    TRACE(6, "NatMulticastMounter::", "doInit");
    State::MountGroup& group = stateEm()->getMountGroup(*this);
    declare<CapabilityConfig>(group);
    declare<RouteStatus>(group);
    declare<VrfEnabledStatus>(group);

    // The default VRF's route tables are mounted whatever the toggle says, the static one as "static" always.
    using QuillTable = Quill::Multicast::Fib::Status;
    for (const char* mode : {STATIC_MODE, SPARSE_MODE})
        shmemEm()->doMount(QuillTable::mountPath("default", mode), QuillTable::type().name(),
                           State::TableMount{.mode = 3, .collections = {}});
    shmemEm()->doMount(
        MrouteColl::path, MrouteColl::type().name(),
        State::TableMount{.mode = 0, .collections = {{.name = "mroutes", .capacity = 16000, .reserve = 0}}});
    shmemEm()->doMount(MgroupColl::path, MgroupColl::type().name(),
                       State::TableMount{.mode = 1, .collections = {}});
    group.doClose(false, "", std::chrono::seconds(0));
}

void NatMulticastMounter::doMountsComplete(const State::MountStatus&,
                                           const State::Handle<State::EntityManager>& em) {
    // The status is not looked at: a mount that failed shows as a null handle, with which its reader copes.
    TRACE(6, "NatMulticastMounter::", "doMountsComplete");
    const auto groupConfig = shmemEm()->entity<MrouteColl>(MrouteColl::path);
    const State::Handle<const MgroupColl> groupStatus = shmemEm()->entity<MgroupColl>(MgroupColl::path);

    const State::Handle<const RouteStatus> routeStatus = em->entity<RouteStatus>(RouteStatus::path);
    const State::Handle<const VrfEnabledStatus> vrfEnabled =
        em->entity<VrfEnabledStatus>(VrfEnabledStatus::path);
    const State::Handle<const NatMrouteRequestSet> mrouteRequests =
        em->entity<NatMrouteRequestSet>(NatMrouteRequestSet::path);
    const auto mrouteResponses = em->entity<NatMrouteResponseMap>(NatMrouteResponseMap::path);
    const auto smStatus = em->entity<MulticastSmStatus>(MulticastSmStatus::path);

    mrouteRouteMapIs();
    natVrfDirSmIs(NatVrfDirSm::NatVrfDirSmIs(shmemEm(), routeStatus, vrfEnabled, mrouteRouteMap_));
    const State::Handle<const CapabilityConfig> capabilityConfig =
        em->entity<CapabilityConfig>(CapabilityConfig::path);
    mrouteSmIs(
        natMrouteSmFactory(mrouteRequests, mrouteResponses, smStatus, mrouteRouteMap_, capabilityConfig));

    const State::Handle<const NatMgroupRequestSet> mgroupRequests =
        em->entity<NatMgroupRequestSet>(NatMgroupRequestSet::path);
    const auto mgroupResponses = em->entity<NatMgroupResponseMap>(NatMgroupResponseMap::path);
    mgroupSmIs(natMgroupSmFactory(mgroupRequests, mgroupResponses, smStatus, groupConfig, groupStatus));
}

State::Handle<NatMrouteRouteMap> NatMulticastMounter::mrouteRouteMapIs() {
    if (!mrouteRouteMap_)
        mrouteRouteMap_ = State::makeHandle<NatMrouteRouteMap>();
    return mrouteRouteMap_;
}

State::Handle<NatMrouteRouteMap> NatMulticastMounter::mrouteRouteMapDel() {
    return std::exchange(mrouteRouteMap_, nullptr);
}

} // namespace KestrelNat
