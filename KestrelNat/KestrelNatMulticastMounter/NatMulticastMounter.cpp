#include "KestrelNat/KestrelNatMulticastMounter/NatMulticastMounter.h"

#include "state/Trace.h"
#include "state/TypeRegistry.h"

TRACE_FACILITY("KestrelNatMulticastMounter");

namespace KestrelNat {

namespace {

constexpr const char* capabilityConfigPath = "hardware/kestrel/nat/capability/config";
constexpr const char* routeStatusPath = "routing/hardware/route/status";
constexpr const char* vrfEnabledPath = "routing/multicast/fibenabled/status";
constexpr const char* groupConfigPath = "l3/mroutegroup/config";
constexpr const char* groupStatusPath = "l3/mroutegroup/status";

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
    const auto declare = [&](const char* path, const char* typeName) {
        group.doMount({.path = path, .typeName = typeName, .flags = State::mountFlags("r")});
    };
    declare(capabilityConfigPath, "KestrelNat::CapabilityConfig");
    declare(routeStatusPath, "Routing::Hardware::RouteStatus");
    declare(vrfEnabledPath, "Routing::Multicast::Fib::VrfEnabledStatus");

    // The default VRF's route tables are mounted whatever the toggle says, the static one as "static" always.
    for (const char* path : {"routing/multicast/routestatus/default/static",
                             "routing/multicast/routestatus/default/sparsemode"}) {
        shmemEm()->doMount(path, "Quill::Multicast::Fib::Status",
                           State::TableMount{.mode = 3, .collections = {}});
    }
    shmemEm()->doMount(
        groupConfigPath, "KestrelCommon::MrouteGroup::MrouteColl",
        State::TableMount{.mode = 0, .collections = {{.name = "mroutes", .capacity = 16000, .reserve = 0}}});
    shmemEm()->doMount(groupStatusPath, "KestrelCommon::MrouteGroup::MgroupColl",
                       State::TableMount{.mode = 1, .collections = {}});
    group.doClose(false, "", std::chrono::seconds(0));
}

void NatMulticastMounter::doMountsComplete(const State::MountStatus&,
                                           const State::Handle<State::EntityManager>& em) {
    // The status is not looked at: a mount that failed shows as a null handle, with which its reader copes.
    TRACE(6, "NatMulticastMounter::", "doMountsComplete");
    const auto groupConfig = shmemEm()->entity<KestrelCommon::MrouteGroup::MrouteColl>(groupConfigPath);
    const State::Handle<const KestrelCommon::MrouteGroup::MgroupColl> groupStatus =
        shmemEm()->entity<KestrelCommon::MrouteGroup::MgroupColl>(groupStatusPath);

    const State::Handle<const Routing::Hardware::RouteStatus> routeStatus =
        em->entity<Routing::Hardware::RouteStatus>(routeStatusPath);
    const State::Handle<const Routing::Multicast::Fib::VrfEnabledStatus> vrfEnabled =
        em->entity<Routing::Multicast::Fib::VrfEnabledStatus>(vrfEnabledPath);
    const State::Handle<const NatMrouteRequestSet> mrouteRequests =
        em->entity<NatMrouteRequestSet>("api/mroute/req");
    const auto mrouteResponses = em->entity<NatMrouteResponseMap>("api/mroute/resp");
    const auto smStatus = em->entity<MulticastSmStatus>("api/multicastSmStatus");

    mrouteRouteMapIs();
    natVrfDirSmIs(NatVrfDirSm::NatVrfDirSmIs(shmemEm(), routeStatus, vrfEnabled, mrouteRouteMap_));
    const State::Handle<const CapabilityConfig> capabilityConfig =
        em->entity<CapabilityConfig>(capabilityConfigPath);
    mrouteSmIs(
        natMrouteSmFactory(mrouteRequests, mrouteResponses, smStatus, mrouteRouteMap_, capabilityConfig));

    const State::Handle<const NatMgroupRequestSet> mgroupRequests =
        em->entity<NatMgroupRequestSet>("api/mgroup/req");
    const auto mgroupResponses = em->entity<NatMgroupResponseMap>("api/mgroup/resp");
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
