#include "KestrelNat/KestrelNatMulticastSm/McastRouteSm.h"

#include "state/Errors.h"
#include "state/Trace.h"

#include <utility>

TRACE_FACILITY("KestrelNatMulticastSm");

namespace KestrelNat {

// Every route of a new table is handled twice, by the pass over the table and by the pass over its
// interfaces. This is meant: the second pass is the one that any change of an interface makes, and a new
// table is a change of them all.
NatMrouteSm::McastRouteSm::McastRouteSm(QuillRoutes table, const NatMcastRouteKey& key, NatMrouteSm* owner)
    : NestedStateMachine(std::move(table), owner)
    , key_(key) {
    attach();
    if (!notifier())
        return;
    if (owner != nullptr)
        owner->handleMcastRouteUpdateAll(key_);
    if (notifier())
        handleMcastOifUpdate();
}

void NatMrouteSm::McastRouteSm::notifierIs(const State::Handle<const State::RefCounted>& node) {
    QuillRoutes table = State::handleCast<const Quill::Multicast::Fib::Status>(node);
    if (table == notifier())
        return;
    repoint(std::move(table));
    attach();
}

void NatMrouteSm::McastRouteSm::retiredIs(bool retired) {
    if (retired == retired_)
        return;
    if (notifier())
        hasNotificationActiveIs(!retired);
    // Reviving deletes the answers as retiring does. This is meant: whoever revives a watcher answers anew.
    if (owner() != nullptr)
        owner()->handleDeletion(key_);
    retired_ = retired;
}

void NatMrouteSm::McastRouteSm::onAttribute(const State::Notification& change) {
    using Quill::Multicast::Fib::Status;
    if (retired_ || owner() == nullptr)
        return;
    if (change.attribute == Status::routeAttribute) {
        const State::Handle<NatMrouteSm> mrouteSm(owner());
        mrouteSm->handleMcastRouteUpdate(IpGenRouteKey(change.keyAs<IpGenRouteKey>()), key_);
    } else if (change.attribute == Status::oifIndexIntfAttribute) {
        handleMcastOifUpdate(OifIndex(change.keyAs<OifIndex>()));
    }
}

void NatMrouteSm::McastRouteSm::handleMcastOifUpdate(OifIndex oifIndex) {
    const QuillRoutes table = notifier();
    if (!table)
        return;
    try {
        const L3::IntfId intf = table->intf(oifIndex);
        TRACE(8, "handleMcastOifUpdate", " handling update for oif (id=", oifIndex, " intf=", intf,
              ") of type ", table->tableName());
        handleRoutes(table);
    } catch (const State::CorruptionError& error) {
        table->doCorruptionDetected(error.what());
    }
}

void NatMrouteSm::McastRouteSm::handleMcastOifUpdate() {
    const QuillRoutes table = notifier();
    if (!table)
        return;
    TRACE(8, "handleMcastOifUpdate", " handling all known oifs of type ", table->tableName());
    try {
        handleRoutes(table);
    } catch (const State::CorruptionError& error) {
        table->doCorruptionDetected(error.what());
    }
}

// All routes, not only those that use a changed interface. This is meant: a row names its interfaces by
// index, and nothing leads from an index to the rows that use it.
void NatMrouteSm::McastRouteSm::handleRoutes(const QuillRoutes& table) {
    const State::Handle<NatMrouteSm> mrouteSm(owner());
    if (!mrouteSm)
        return;
    table->routes([&](const IpGenRouteKey& key) {
        const IpGenRouteKey routeKey = key; // the row may go while it is handled
        mrouteSm->handleMcastRouteUpdate(routeKey, key_);
        return true;
    });
}

} // namespace KestrelNat
