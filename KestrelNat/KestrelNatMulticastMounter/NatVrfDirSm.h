// KestrelNat::NatVrfDirSm: keeps the route map in step with the VRFs that have multicast routing. For each
// VRF that is enabled and has an identifier it enters name and identifier, mounts the VRF's static and sparse
// route tables and enters them too; when the VRF is no longer enabled it takes all of that away. Made by the
// mounter (NatMulticastMounter.h) before the mroute state machine, which reads the route map.
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMrouteRouteMap.h"
#include "records/RouteStatus.h"
#include "state/Collection.h"
#include "state/ShmEntityManager.h"
#include "state/StateMachine.h"

#include <string_view>

namespace KestrelNat {

class NatVrfDirSm final : public State::StateMachine {
  public:
    class NestedSm_VrfStatus;

    using RouteStatus = Routing::Hardware::RouteStatus;
    using VrfStatus = Routing::Hardware::VrfStatus;
    using VrfEnabledStatus = Routing::Multicast::Fib::VrfEnabledStatus;

    /// Makes the state machine, enters every VRF that is ready, and switches notification on. Inputs may be
    /// null: a null collection reads as empty, a null route map or entity manager means that nothing can be
    /// entered.
    static State::Handle<NatVrfDirSm>
    NatVrfDirSmIs(State::Handle<State::ShmEntityManager> shmemEm,
                  State::Handle<const RouteStatus> routingHwRouteStatus,
                  State::Handle<const VrfEnabledStatus> routingVrfEnabledStatus,
                  State::Handle<NatMrouteRouteMap> mrouteRouteMap);
    NatVrfDirSm(State::Handle<State::ShmEntityManager> shmemEm,
                State::Handle<const RouteStatus> routingHwRouteStatus,
                State::Handle<const VrfEnabledStatus> routingVrfEnabledStatus,
                State::Handle<NatMrouteRouteMap> mrouteRouteMap);
    ~NatVrfDirSm() override;

    const State::Handle<State::ShmEntityManager>& shmemEm() const { return shmemEm_; }
    const State::Handle<const RouteStatus>& routingHwRouteStatus() const { return routingHwRouteStatus_; }
    const State::Handle<const VrfEnabledStatus>& routingVrfEnabledStatus() const {
        return routingVrfEnabledStatus_;
    }
    const State::Handle<NatMrouteRouteMap>& mrouteRouteMap() const { return mrouteRouteMap_; }

    /// Brings route map and mounts for one VRF in line with the inputs. Every reactor ends here.
    void handleVrf(const L3::VrfName& vrfName);
    /// The same for every VRF in the VRF-enabled collection.
    void handleInitialized();

    /// One nested state machine per VRF status, by VRF name: adds it, or points it at another status, which it
    /// then handles at once. NullArgumentError.
    void vrfStatusIs(const State::Handle<const VrfStatus>& vrfStatus);
    /// Removes and hands it back, null when absent; it stops reacting.
    State::Handle<NestedSm_VrfStatus> vrfStatusDel(const L3::VrfName& vrfName);
    void vrfStatusDelAll();
    bool vrfStatusHas(const L3::VrfName& vrfName) const { return vrfStatus_.has(vrfName); }
    State::Handle<NestedSm_VrfStatus> vrfStatus(const L3::VrfName& vrfName) const {
        return vrfStatus_.get(vrfName);
    }
    static constexpr State::AttributeId vrfStatusAttribute = 4;

    /// Turns all reactors on or off, those of the nested state machines too.
    void hasNotificationActiveIs(bool active);

    void routingHwRouteStatusDispatch(const State::Notification& change);
    void routingVrfEnabledStatusDispatch(const State::Notification& change);

  private:
    void removeVrf(const L3::VrfName& vrfName);
    void retire();

    // In attribute order.
    State::Handle<State::ShmEntityManager> shmemEm_;
    State::Handle<const RouteStatus> routingHwRouteStatus_;
    State::Handle<const VrfEnabledStatus> routingVrfEnabledStatus_;
    State::Handle<NatMrouteRouteMap> mrouteRouteMap_;
    State::MapAttribute<L3::VrfName, State::Handle<NestedSm_VrfStatus>> vrfStatus_;

    State::Reactor routeStatusReactor_;
    State::Reactor vrfEnabledReactor_;
};

/// Watches the identifier of one VRF.
class NatVrfDirSm::NestedSm_VrfStatus final
    : public State::NestedStateMachine<NestedSm_VrfStatus, VrfStatus, NatVrfDirSm,
                                       State::maskOf(VrfStatus::vrfIdAttribute)> {
  public:
    /// Attaches to the status without running the reactor.
    NestedSm_VrfStatus(State::Handle<const VrfStatus> vrfStatus, NatVrfDirSm* owner);

    /// Points the machine at another status; unless retired, handles it at once.
    void notifierIs(const State::Handle<const VrfStatus>& vrfStatus);
    void hasNotificationActiveIs(bool active) { notificationActive_ = active; }
    void retiredIs(bool retired);

    void onAttribute(const State::Notification& change);
    /// The identifier changed.
    void handleVrfStatusVrfId();
};

State::Handle<NatVrfDirSm>
natVrfDirSmFactory(State::Handle<State::ShmEntityManager> shmemEm,
                   State::Handle<const Routing::Hardware::RouteStatus> routingHwRouteStatus,
                   State::Handle<const Routing::Multicast::Fib::VrfEnabledStatus> routingVrfEnabledStatus,
                   State::Handle<NatMrouteRouteMap> mrouteRouteMap);

} // namespace KestrelNat
