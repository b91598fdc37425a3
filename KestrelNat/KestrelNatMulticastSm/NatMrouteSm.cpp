// Assembly of the mroute service: construction, reactors, the collections of watchers, teardown.
#include "KestrelNat/KestrelNatMulticastSm/NatMrouteSm.h"

#include "KestrelNat/KestrelNatMulticastSm/McastMfibSm.h"
#include "KestrelNat/KestrelNatMulticastSm/McastRouteSm.h"
#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"
#include "state/TypeRegistry.h"

#include <type_traits>
#include <utility>

namespace KestrelNat {

// An exception that leaves the body takes the reactors with it first, which detach themselves.
NatMrouteSm::NatMrouteSm(State::Handle<const NatMrouteRequestSet> mrouteRequestSet,
                         State::Handle<NatMrouteResponseMap> mrouteResponseMap,
                         State::Handle<MulticastSmStatus> multicastSmStatus,
                         State::Handle<const NatMrouteRouteMap> mrouteRouteMap,
                         State::Handle<const CapabilityConfig> capabilityConfig)
    : mrouteRequestSet_(std::move(mrouteRequestSet))
    , mrouteResponseMap_(std::move(mrouteResponseMap))
    , multicastSmStatus_(std::move(multicastSmStatus))
    , mrouteRouteMap_(std::move(mrouteRouteMap))
    , mcastRoute_(*this, mcastRouteAttribute, 129833230U)
    , mfibApp_(*this, mfibAppAttribute, 2483000224U)
    , capabilityConfig_(std::move(capabilityConfig))
    , requestReactor_(State::Reactor::of<&NatMrouteSm::mrouteRequestSetDispatch>(
          this, mrouteRequestSet_, State::maskOf(NatMrouteRequestSet::mrouteReqAttribute)))
    , routeMapReactor_(State::Reactor::of<&NatMrouteSm::mrouteRouteMapDispatch>(
          this, mrouteRouteMap_,
          State::maskOf(NatMrouteRouteMap::mrouteRouteAttribute) |
              State::maskOf(NatMrouteRouteMap::mfibAttribute))) {
    requestReactor_.registeredIs(true);
    routeMapReactor_.registeredIs(true);
    handleInitialized();
    handleMrouteReq();
    watchPresentTables();
}

State::Handle<NatMrouteSm>
NatMrouteSm::NatMrouteSmIs(State::Handle<const NatMrouteRequestSet> mrouteRequestSet,
                           State::Handle<NatMrouteResponseMap> mrouteResponseMap,
                           State::Handle<MulticastSmStatus> multicastSmStatus,
                           State::Handle<const NatMrouteRouteMap> mrouteRouteMap,
                           State::Handle<const CapabilityConfig> capabilityConfig) {
    auto made = State::Handle<NatMrouteSm>::adopt(new NatMrouteSm(
        std::move(mrouteRequestSet), std::move(mrouteResponseMap), std::move(multicastSmStatus),
        std::move(mrouteRouteMap), std::move(capabilityConfig)));
    made->hasNotificationActiveIs(true);
    return made;
}

State::Handle<NatMrouteSm> natMrouteSmFactory(State::Handle<const NatMrouteRequestSet> mrouteRequestSet,
                                              State::Handle<NatMrouteResponseMap> mrouteResponseMap,
                                              State::Handle<MulticastSmStatus> multicastSmStatus,
                                              State::Handle<const NatMrouteRouteMap> mrouteRouteMap,
                                              State::Handle<const CapabilityConfig> capabilityConfig) {
    return NatMrouteSm::NatMrouteSmIs(std::move(mrouteRequestSet), std::move(mrouteResponseMap),
                                      std::move(multicastSmStatus), std::move(mrouteRouteMap),
                                      std::move(capabilityConfig));
}

STATE_FACTORY("KestrelNat::NatMrouteSm", &natMrouteSmFactory);

void NatMrouteSm::handleInitialized() {
    for (const std::string& routeType : routeTypes())
        mrouteResponseMapByRouteIs(routeType, State::makeHandle<NatMrouteResponseMap>(routeType));
}

void NatMrouteSm::watchPresentTables() {
    if (!mrouteRouteMap_)
        return;
    for (const auto& member : mrouteRouteMap_->mrouteRoute()) {
        const auto [key, table] = member; // the pass may change the route map
        mcastRouteIs(key, table);
    }
    for (const auto& member : mrouteRouteMap_->mfib()) {
        const auto [key, mfib] = member;
        mfibAppIs(key, mfib);
    }
}

// The members go in the reverse order of their attributes.
NatMrouteSm::~NatMrouteSm() {
    hasNotificationActiveIs(false);
    retire();
    requestReactor_.registeredIs(false);
    routeMapReactor_.registeredIs(false);
    for (const auto& member : mcastRoute_.walk())
        member.value->ownerDel();
    for (const auto& member : mfibApp_.walk())
        member.value->ownerDel();
    watchedMroutesDelAll();
    vrfIdSourceAndGroupToIntfDelAll();
}

void NatMrouteSm::retire() {
    retired_ = true;
    for (const auto& member : mcastRoute_.walk())
        member.value->retiredIs(true);
    for (const auto& member : mfibApp_.walk())
        member.value->retiredIs(true);
}

// ---- reactors

void NatMrouteSm::hasNotificationActiveIs(bool active) {
    if (active == notificationActive_)
        return;
    notificationActive_ = active;
    requestReactor_.registeredIs(active);
    routeMapReactor_.registeredIs(active);
    for (const auto& member : mcastRoute_.walk())
        member.value->hasNotificationActiveIs(active);
    for (const auto& member : mfibApp_.walk())
        member.value->hasNotificationActiveIs(active);
}

void NatMrouteSm::mrouteRequestSetDispatch(const State::Notification& change) {
    if (!retired_ && change.attribute == NatMrouteRequestSet::mrouteReqAttribute)
        handleMrouteReq(NatMrouteKey(change.keyAs<NatMrouteKey>()));
}

void NatMrouteSm::mrouteRouteMapDispatch(const State::Notification& change) {
    if (retired_)
        return;
    if (change.attribute == NatMrouteRouteMap::mrouteRouteAttribute) {
        const auto key = change.keyAs<NatMcastRouteKey>();
        if (const QuillRoutes table = mrouteRouteMap_->mrouteRoute(key))
            mcastRouteIs(key, table);
        else
            mcastRouteDel(key);
    } else if (change.attribute == NatMrouteRouteMap::mfibAttribute) {
        const auto key = change.keyAs<NatMcastRouteKey>();
        if (const LumenMfib mfib = mrouteRouteMap_->mfib(key))
            mfibAppIs(key, mfib);
        else
            mfibAppDel(key);
    }
}

// ---- watchers: of Quill tables and of Lumen FIBs alike

// One watcher per table: makes it, points it elsewhere, or removes it where `table` is null.
template <class Watcher, class Table>
void NatMrouteSm::watcherIs(State::MapAttribute<NatMcastRouteKey, State::Handle<Watcher>>& watchers,
                            const NatMcastRouteKey& key, const State::Handle<const Table>& table) {
    if (const State::Handle<Watcher> watcher = watchers.get(key)) {
        if (watcher->notifier() == table)
            return;
        if (table)
            watcher->notifierIs(table);
        else
            watchers.del(key); // without retiring the watcher, so that the answers stay: this is meant
        watcher->retiredIs(retired_);
        if (!table)
            watcher->ownerDel();
        return;
    }
    if (!table)
        return;
    const auto watcher = State::makeHandle<Watcher>(table, key, this);
    watcher->hasNotificationActiveIs(true);
    watchers.is(key, watcher);
    watcher->retiredIs(retired_);
}

// Removes and retires the watcher; what it watched, null when absent.
template <class Watcher>
auto NatMrouteSm::watcherDel(State::MapAttribute<NatMcastRouteKey, State::Handle<Watcher>>& watchers,
                             const NatMcastRouteKey& key) {
    const State::Handle<Watcher> watcher = watchers.del(key);
    if (!watcher)
        return std::remove_cvref_t<decltype(watcher->notifier())>();
    watcher->retiredIs(true);
    watcher->hasNotificationActiveIs(false);
    watcher->ownerDel();
    return watcher->notifier();
}

State::Handle<NatMrouteSm::McastRouteSm> NatMrouteSm::mcastRoute(const NatMcastRouteKey& key) const {
    return mcastRoute_.get(key);
}

void NatMrouteSm::mcastRouteIs(const NatMcastRouteKey& key, const QuillRoutes& table) {
    watcherIs(mcastRoute_, key, table);
}

NatMrouteSm::QuillRoutes NatMrouteSm::mcastRouteDel(const NatMcastRouteKey& key) {
    return watcherDel(mcastRoute_, key);
}

void NatMrouteSm::mcastRouteDelAll() {
    for (const auto& member : mcastRoute_.walk())
        mcastRouteDel(NatMcastRouteKey(member.key));
}

State::Handle<NatMrouteSm::McastMfibSm> NatMrouteSm::mfibApp(const NatMcastRouteKey& key) const {
    return mfibApp_.get(key);
}

void NatMrouteSm::mfibAppIs(const NatMcastRouteKey& key, const LumenMfib& mfib) {
    watcherIs(mfibApp_, key, mfib);
}

NatMrouteSm::LumenMfib NatMrouteSm::mfibAppDel(const NatMcastRouteKey& key) {
    return watcherDel(mfibApp_, key);
}

void NatMrouteSm::mfibAppDelAll() {
    for (const auto& member : mfibApp_.walk())
        mfibAppDel(NatMcastRouteKey(member.key));
}

} // namespace KestrelNat
