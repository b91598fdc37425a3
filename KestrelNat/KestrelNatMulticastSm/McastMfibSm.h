// NatMrouteSm::McastMfibSm: watches one Lumen FIB for the mroute state machine (NatMrouteSm.h), which keeps
// one per FIB of the route map. In turn it keeps one NestedSm_LumenRoute per route, which watches the route's
// version. Every change of the set of routes, and of a version, becomes a route update; when the watcher is
// retired, the answers of the FIB's VRF go.
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMrouteSm.h"

namespace KestrelNat {

class NatMrouteSm::McastMfibSm final
    : public State::NestedStateMachine<NatMrouteSm::McastMfibSm, Lumen::Multicast::Fib::Status, NatMrouteSm,
                                       State::maskOf(Lumen::Multicast::Fib::Status::routeAttribute)> {
  public:
    class NestedSm_LumenRoute;

    using LumenRoute = State::Handle<const Lumen::Multicast::Fib::Route>;

    /// Watches `mfib` (may be null), has the owner answer everything that concerns it, and watches its routes.
    McastMfibSm(LumenMfib mfib, const NatMcastRouteKey& key, NatMrouteSm* owner);
    ~McastMfibSm() override;

    const NatMcastRouteKey& key() const { return key_; }

    /// Watches `node` and its routes instead, if that is a Lumen FIB, else nothing.
    void notifierIs(const State::Handle<const State::RefCounted>& node);
    /// Those of the route watchers with it.
    void hasNotificationActiveIs(bool active);
    /// Retires or revives the watcher and its route watchers.
    void retiredIs(bool retired);

    void onAttribute(const State::Notification& change);

    /// One watcher per route, by the route's key: adds it, or points it at another route, which is then
    /// handled at once. NullArgumentError.
    void lumenRouteIs(const LumenRoute& route);
    /// Removes and retires it. Absent is no error.
    void lumenRouteDel(const IpGenRouteKey& routeKey);
    void lumenRouteDelAll();
    State::Handle<NestedSm_LumenRoute> lumenRoute(const IpGenRouteKey& routeKey) const;
    /// Walk over the handles; a member's key is its routeKey().
    auto lumenRoute() const { return lumenRoute_.walk(); }

  private:
    struct KeyOf {
        const IpGenRouteKey& operator()(const State::Handle<NestedSm_LumenRoute>& watcher) const;
    };

    const NatMcastRouteKey key_;
    State::Table<State::Handle<NestedSm_LumenRoute>, KeyOf> lumenRoute_;
};

/// Watches the version of one route, which the routing side advances when it has changed the route.
class NatMrouteSm::McastMfibSm::NestedSm_LumenRoute final
    : public State::NestedStateMachine<NatMrouteSm::McastMfibSm::NestedSm_LumenRoute,
                                       Lumen::Multicast::Fib::Route, McastMfibSm,
                                       State::maskOf(Lumen::Multicast::Fib::Route::versionAttribute)> {
  public:
    /// Attaches to the route without handling it.
    NestedSm_LumenRoute(const LumenRoute& route, McastMfibSm* owner);

    /// The key under which it stands, which is that of the route it was made for, whatever it watches now.
    const IpGenRouteKey& routeKey() const {
        return static_cast<const Lumen::Multicast::Fib::Route&>(*keyRoute_).key();
    }
    /// Lets another route of the same key give the key, so that the one before can go.
    void keyRouteIs(const LumenRoute& route) { keyRoute_ = route; }

    /// Watches `node` instead, if that is a Lumen route, which it then handles at once unless retired; else
    /// nothing.
    void notifierIs(const State::Handle<const State::RefCounted>& node);
    void hasNotificationActiveIs(bool active) { notificationActive_ = active; }
    void retiredIs(bool retired);

    void onAttribute(const State::Notification& change);
    /// The version changed.
    void handleVersion();

  private:
    State::Handle<const State::Entity> keyRoute_; // as an entity, so that it does not count as a use
};

inline const NatMrouteSm::IpGenRouteKey&
NatMrouteSm::McastMfibSm::KeyOf::operator()(const State::Handle<NestedSm_LumenRoute>& watcher) const {
    return watcher->routeKey();
}

} // namespace KestrelNat
