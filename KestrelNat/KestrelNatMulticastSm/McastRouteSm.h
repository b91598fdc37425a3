// NatMrouteSm::McastRouteSm: watches one Quill route table for the mroute state machine (NatMrouteSm.h),
// which keeps one per table of the route map. Every change of a row or of an interface index becomes route
// updates. It holds no data but what names its table; when it is retired, the answers of the table's VRF go.
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMrouteSm.h"

namespace KestrelNat {

class NatMrouteSm::McastRouteSm final
    : public State::NestedStateMachine<NatMrouteSm::McastRouteSm, Quill::Multicast::Fib::Status, NatMrouteSm,
                                       State::maskOf(Quill::Multicast::Fib::Status::routeAttribute) |
                                           State::maskOf(
                                               Quill::Multicast::Fib::Status::oifIndexIntfAttribute)> {
  public:
    using OifIndex = Quill::Multicast::Fib::OifIndex;

    /// Watches `table` (may be null) and has the owner answer everything that concerns it.
    McastRouteSm(QuillRoutes table, const NatMcastRouteKey& key, NatMrouteSm* owner);

    const NatMcastRouteKey& key() const { return key_; }

    /// Watches `node` instead, if that is a Quill route table, else nothing. Its routes are not looked at.
    void notifierIs(const State::Handle<const State::RefCounted>& node);
    void hasNotificationActiveIs(bool active) { notificationActive_ = active; }
    /// Retires or revives the watcher.
    void retiredIs(bool retired);

    void onAttribute(const State::Notification& change);
    /// The interface of an index changed: every route of the table is looked at again.
    void handleMcastOifUpdate(OifIndex oifIndex);
    /// The same for all indexes at once.
    void handleMcastOifUpdate();

  private:
    void handleRoutes(const QuillRoutes& table);

    const NatMcastRouteKey key_;
};

} // namespace KestrelNat
