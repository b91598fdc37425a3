#include "KestrelNat/KestrelNatMulticastSm/McastMfibSm.h"

#include "state/Errors.h"

#include <utility>

namespace KestrelNat {

using Lumen::Multicast::Fib::Route;

NatMrouteSm::McastMfibSm::McastMfibSm(LumenMfib mfib, const NatMcastRouteKey& key, NatMrouteSm* owner)
    : NestedStateMachine(std::move(mfib), owner)
    , key_(key)
    , lumenRoute_(State::processHashSeed() ^ 1424647125U) {
    attach();
    if (!notifier())
        return;
    if (owner != nullptr)
        owner->handleMcastRouteUpdateAll(key_);
    if (const LumenMfib present = notifier()) {
        present->routes([&](const LumenRoute& route) {
            lumenRouteIs(route);
            return true;
        });
    }
}

NatMrouteSm::McastMfibSm::~McastMfibSm() {
    for (const auto& member : lumenRoute_.walk())
        member->ownerDel();
}

void NatMrouteSm::McastMfibSm::notifierIs(const State::Handle<const State::RefCounted>& node) {
    const LumenMfib mfib = State::handleCast<const Lumen::Multicast::Fib::Status>(node);
    if (mfib == notifier())
        return;
    repoint(mfib);
    if (mfib) {
        mfib->routes([&](const LumenRoute& route) {
            lumenRouteIs(route);
            return true;
        });
        for (const auto& member : lumenRoute_.walk())
            if (!mfib->routeCollection().has(member->routeKey()))
                lumenRouteDel(IpGenRouteKey(member->routeKey()));
    }
    attach();
}

void NatMrouteSm::McastMfibSm::hasNotificationActiveIs(bool active) {
    if (active == notificationActive_)
        return;
    notificationActive_ = active;
    for (const auto& member : lumenRoute_.walk())
        member->hasNotificationActiveIs(active);
}

void NatMrouteSm::McastMfibSm::retiredIs(bool retired) {
    if (retired == retired_)
        return;
    if (notifier())
        hasNotificationActiveIs(!retired);
    // Reviving deletes the answers as retiring does. This is meant: whoever revives a watcher answers anew.
    if (owner() != nullptr)
        owner()->handleDeletion(key_);
    for (const auto& member : lumenRoute_.walk())
        member->retiredIs(retired);
    retired_ = retired;
}

void NatMrouteSm::McastMfibSm::onAttribute(const State::Notification& change) {
    if (change.attribute != Lumen::Multicast::Fib::Status::routeAttribute)
        return;
    const IpGenRouteKey routeKey = change.keyAs<IpGenRouteKey>();
    if (!retired_ && owner() != nullptr) {
        const State::Handle<NatMrouteSm> mrouteSm(owner());
        mrouteSm->handleMcastRouteUpdate(routeKey, key_);
    }
    if (!notifier())
        return;
    if (const LumenRoute route = notifier()->route(routeKey))
        lumenRouteIs(route);
    else
        lumenRouteDel(routeKey);
}

// ---- the watchers of the routes

State::Handle<NatMrouteSm::McastMfibSm::NestedSm_LumenRoute>
NatMrouteSm::McastMfibSm::lumenRoute(const IpGenRouteKey& routeKey) const {
    const auto* member = lumenRoute_.find(routeKey);
    return member == nullptr ? State::Handle<NestedSm_LumenRoute>() : *member;
}

void NatMrouteSm::McastMfibSm::lumenRouteIs(const LumenRoute& route) {
    if (!route)
        throw State::NullArgumentError("NatMrouteSm::McastMfibSm", "lumenRoute");
    State::Handle<NestedSm_LumenRoute> watcher = lumenRoute(route->key());
    if (watcher) {
        watcher->notifierIs(route);
        watcher->keyRouteIs(route);
    } else {
        watcher = State::makeHandle<NestedSm_LumenRoute>(route, this);
        watcher->hasNotificationActiveIs(true);
        lumenRoute_.findOrInsert(route->key(), [&] { return watcher; });
    }
    watcher->retiredIs(retired_);
}

void NatMrouteSm::McastMfibSm::lumenRouteDel(const IpGenRouteKey& routeKey) {
    lumenRoute_.extract(routeKey, [](auto&& removed) {
        removed->retiredIs(true);
        removed->hasNotificationActiveIs(false);
        removed->ownerDel();
    });
}

void NatMrouteSm::McastMfibSm::lumenRouteDelAll() {
    for (const auto& member : lumenRoute_.walk())
        lumenRouteDel(IpGenRouteKey(member->routeKey()));
}

NatMrouteSm::McastMfibSm::NestedSm_LumenRoute::NestedSm_LumenRoute(const LumenRoute& route,
                                                                   McastMfibSm* owner)
    : NestedStateMachine(route, owner)
    , keyRoute_(route) {
    attach();
}

void NatMrouteSm::McastMfibSm::NestedSm_LumenRoute::notifierIs(
    const State::Handle<const State::RefCounted>& node) {
    LumenRoute route = State::handleCast<const Route>(node);
    if (route == notifier())
        return;
    repoint(std::move(route));
    if (notifier() && !retired_)
        handleVersion();
    attach();
}

void NatMrouteSm::McastMfibSm::NestedSm_LumenRoute::retiredIs(bool retired) {
    if (retired == retired_)
        return;
    if (notifier())
        hasNotificationActiveIs(!retired);
    retired_ = retired;
}

void NatMrouteSm::McastMfibSm::NestedSm_LumenRoute::onAttribute(const State::Notification& change) {
    if (!retired_ && change.attribute == Route::versionAttribute)
        handleVersion();
}

void NatMrouteSm::McastMfibSm::NestedSm_LumenRoute::handleVersion() {
    // Both owners are held: an answer's subscriber may take the table away meanwhile.
    const State::Handle<McastMfibSm> mfibSm(owner());
    const State::Handle<NatMrouteSm> mrouteSm(mfibSm ? mfibSm->owner() : nullptr);
    if (mrouteSm)
        mrouteSm->handleMcastRouteUpdate(notifier() ? notifier()->key() : IpGenRouteKey(), mfibSm->key());
}

} // namespace KestrelNat
