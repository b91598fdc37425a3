// Assembly of the VRF directory: construction, reactors, nested state machines, teardown. What happens to a
// VRF is in NatVrfDirVrfs.cpp.
#include "KestrelNat/KestrelNatMulticastMounter/NatVrfDirSm.h"

#include "state/Errors.h"
#include "state/TypeRegistry.h"

namespace KestrelNat {

NatVrfDirSm::NatVrfDirSm(State::Handle<State::ShmEntityManager> shmemEm,
                         State::Handle<const RouteStatus> routingHwRouteStatus,
                         State::Handle<const VrfEnabledStatus> routingVrfEnabledStatus,
                         State::Handle<NatMrouteRouteMap> mrouteRouteMap)
    : shmemEm_(std::move(shmemEm))
    , routingHwRouteStatus_(std::move(routingHwRouteStatus))
    , routingVrfEnabledStatus_(std::move(routingVrfEnabledStatus))
    , mrouteRouteMap_(std::move(mrouteRouteMap))
    , vrfStatus_(*this, vrfStatusAttribute, State::seedConstant("KestrelNat::NatVrfDirSm::vrfStatus"))
    , routeStatusReactor_(State::Reactor::of<&NatVrfDirSm::routingHwRouteStatusDispatch>(
          this, routingHwRouteStatus_, State::maskOf(RouteStatus::vrfStatusAttribute)))
    , vrfEnabledReactor_(State::Reactor::of<&NatVrfDirSm::routingVrfEnabledStatusDispatch>(
          this, routingVrfEnabledStatus_, State::maskOf(VrfEnabledStatus::vrfEnabledAttribute))) {
    try {
        routeStatusReactor_.registeredIs(true);
        vrfEnabledReactor_.registeredIs(true);
        handleInitialized();
        if (routingHwRouteStatus_)
            for (const auto& [vrfName, status] : routingHwRouteStatus_->vrfStatus())
                vrfStatusIs(status);
    } catch (...) {
        routeStatusReactor_.registeredIs(false);
        vrfEnabledReactor_.registeredIs(false);
        vrfStatusDelAll();
        throw;
    }
}

NatVrfDirSm::~NatVrfDirSm() {
    hasNotificationActiveIs(false);
    retire();
    routeStatusReactor_.registeredIs(false);
    vrfEnabledReactor_.registeredIs(false);
    for (const auto& [vrfName, nested] : vrfStatus_.walk())
        nested->ownerDel();
    vrfStatus_.delAll();
    mrouteRouteMap_.reset();
    routingVrfEnabledStatus_.reset();
    routingHwRouteStatus_.reset();
    shmemEm_.reset();
}

State::Handle<NatVrfDirSm>
NatVrfDirSm::NatVrfDirSmIs(State::Handle<State::ShmEntityManager> shmemEm,
                           State::Handle<const RouteStatus> routingHwRouteStatus,
                           State::Handle<const VrfEnabledStatus> routingVrfEnabledStatus,
                           State::Handle<NatMrouteRouteMap> mrouteRouteMap) {
    auto made = State::makeHandle<NatVrfDirSm>(std::move(shmemEm), std::move(routingHwRouteStatus),
                                               std::move(routingVrfEnabledStatus), std::move(mrouteRouteMap));
    made->hasNotificationActiveIs(true);
    return made;
}

State::Handle<NatVrfDirSm>
natVrfDirSmFactory(State::Handle<State::ShmEntityManager> shmemEm,
                   State::Handle<const Routing::Hardware::RouteStatus> routingHwRouteStatus,
                   State::Handle<const Routing::Multicast::Fib::VrfEnabledStatus> routingVrfEnabledStatus,
                   State::Handle<NatMrouteRouteMap> mrouteRouteMap) {
    return NatVrfDirSm::NatVrfDirSmIs(std::move(shmemEm), std::move(routingHwRouteStatus),
                                      std::move(routingVrfEnabledStatus), std::move(mrouteRouteMap));
}

STATE_FACTORY("KestrelNat::NatVrfDirSm", &natVrfDirSmFactory);

void NatVrfDirSm::hasNotificationActiveIs(bool active) {
    if (active == notificationActive_)
        return;
    notificationActive_ = active;
    routeStatusReactor_.registeredIs(active);
    vrfEnabledReactor_.registeredIs(active);
    for (const auto& [vrfName, nested] : vrfStatus_.walk())
        nested->hasNotificationActiveIs(active);
}

void NatVrfDirSm::retire() {
    retired_ = true;
    for (const auto& [vrfName, nested] : vrfStatus_.walk())
        nested->retiredIs(true);
}

void NatVrfDirSm::routingVrfEnabledStatusDispatch(const State::Notification& change) {
    if (!retired_)
        handleVrf(L3::VrfName(change.keyAs<L3::VrfName>()));
}

void NatVrfDirSm::routingHwRouteStatusDispatch(const State::Notification& change) {
    const L3::VrfName vrfName = change.keyAs<L3::VrfName>();
    if (!retired_)
        handleVrf(vrfName);
    if (const State::Handle<const VrfStatus> status = routingHwRouteStatus_->vrfStatus(vrfName))
        vrfStatusIs(status);
    else
        vrfStatusDel(vrfName);
}

void NatVrfDirSm::vrfStatusIs(const State::Handle<const VrfStatus>& vrfStatus) {
    if (!vrfStatus)
        throw State::NullArgumentError("NatVrfDirSm", "vrfStatus");
    State::Handle<NestedSm_VrfStatus> nested = vrfStatus_.get(vrfStatus->vrfName());
    if (nested) {
        nested->notifierIs(vrfStatus);
    } else {
        nested = State::makeHandle<NestedSm_VrfStatus>(vrfStatus, this);
        nested->hasNotificationActiveIs(true);
        vrfStatus_.is(vrfStatus->vrfName(), nested);
    }
    nested->retiredIs(retired_);
}

State::Handle<NatVrfDirSm::NestedSm_VrfStatus> NatVrfDirSm::vrfStatusDel(const L3::VrfName& vrfName) {
    auto removed = vrfStatus_.del(vrfName);
    if (removed) {
        removed->retiredIs(true);
        removed->ownerDel();
    }
    return removed;
}

void NatVrfDirSm::vrfStatusDelAll() {
    for (const auto& [vrfName, nested] : vrfStatus_.walk())
        vrfStatusDel(vrfName);
}

NatVrfDirSm::NestedSm_VrfStatus::NestedSm_VrfStatus(State::Handle<const VrfStatus> vrfStatus,
                                                    NatVrfDirSm* owner)
    : NestedStateMachine(std::move(vrfStatus), owner) {
    attach();
}

void NatVrfDirSm::NestedSm_VrfStatus::notifierIs(const State::Handle<const VrfStatus>& vrfStatus) {
    if (vrfStatus == notifier())
        return;
    repoint(vrfStatus);
    if (!retired_)
        handleVrfStatusVrfId();
    attach();
}

void NatVrfDirSm::NestedSm_VrfStatus::retiredIs(bool retired) {
    if (retired == retired_)
        return;
    hasNotificationActiveIs(!retired);
    retired_ = retired;
}

void NatVrfDirSm::NestedSm_VrfStatus::onAttribute(const State::Notification& change) {
    if (change.attribute == VrfStatus::vrfIdAttribute && !retired_)
        handleVrfStatusVrfId();
}

void NatVrfDirSm::NestedSm_VrfStatus::handleVrfStatusVrfId() {
    if (owner() != nullptr)
        owner()->handleVrf(notifier() ? notifier()->vrfName() : L3::VrfName());
}

} // namespace KestrelNat
