// Assembly of the mgroup service: construction, reactors, teardown.
#include "KestrelNat/KestrelNatMulticastSm/NatMgroupSm.h"

#include "state/TypeRegistry.h"

#include <utility>

namespace KestrelNat {

// An exception that leaves the body takes the reactors with it, which detach themselves, and then the
// handles.
NatMgroupSm::NatMgroupSm(State::Handle<const NatMgroupRequestSet> mgroupRequestSet,
                         State::Handle<NatMgroupResponseMap> mgroupResponseMap,
                         State::Handle<MulticastSmStatus> multicastSmStatus,
                         State::Handle<MrouteColl> l3MgroupConfig,
                         State::Handle<const MgroupColl> l3MgroupStatus)
    : mgroupRequestSet_(std::move(mgroupRequestSet))
    , mgroupResponseMap_(std::move(mgroupResponseMap))
    , multicastSmStatus_(std::move(multicastSmStatus))
    , l3MgroupConfig_(std::move(l3MgroupConfig))
    , l3MgroupStatus_(std::move(l3MgroupStatus))
    , requestReactor_(State::Reactor::of<&NatMgroupSm::mgroupRequestSetDispatch>(
          this, mgroupRequestSet_, State::maskOf(NatMgroupRequestSet::mgroupReqAttribute)))
    , statusReactor_(State::Reactor::of<&NatMgroupSm::l3MgroupStatusDispatch>(
          this, l3MgroupStatus_, State::maskOf(MgroupColl::mgroupsAttribute))) {
    requestReactor_.registeredIs(true);
    statusReactor_.registeredIs(true);
    handleMgroupReq();
    handleMcastGroupIds();
}

// The members go in reverse order: the record of requesters before the handles, the handles from the group
// status to the request set. What a reactor would do to an object without references can't happen: they are
// off first.
NatMgroupSm::~NatMgroupSm() {
    hasNotificationActiveIs(false);
    retired_ = true;
    requestReactor_.registeredIs(false);
    statusReactor_.registeredIs(false);
    vrfIdSourceAndGroupToIntfDelAll();
}

State::Handle<NatMgroupSm> NatMgroupSm::NatMgroupSmIs(
    State::Handle<const NatMgroupRequestSet> mgroupRequestSet,
    State::Handle<NatMgroupResponseMap> mgroupResponseMap, State::Handle<MulticastSmStatus> multicastSmStatus,
    State::Handle<MrouteColl> l3MgroupConfig, State::Handle<const MgroupColl> l3MgroupStatus) {
    auto made = State::makeHandle<NatMgroupSm>(std::move(mgroupRequestSet), std::move(mgroupResponseMap),
                                               std::move(multicastSmStatus), std::move(l3MgroupConfig),
                                               std::move(l3MgroupStatus));
    made->hasNotificationActiveIs(true);
    return made;
}

State::Handle<NatMgroupSm>
natMgroupSmFactory(State::Handle<const NatMgroupRequestSet> mgroupRequestSet,
                   State::Handle<NatMgroupResponseMap> mgroupResponseMap,
                   State::Handle<MulticastSmStatus> multicastSmStatus,
                   State::Handle<KestrelCommon::MrouteGroup::MrouteColl> l3MgroupConfig,
                   State::Handle<const KestrelCommon::MrouteGroup::MgroupColl> l3MgroupStatus) {
    return NatMgroupSm::NatMgroupSmIs(std::move(mgroupRequestSet), std::move(mgroupResponseMap),
                                      std::move(multicastSmStatus), std::move(l3MgroupConfig),
                                      std::move(l3MgroupStatus));
}

STATE_FACTORY("KestrelNat::NatMgroupSm", &natMgroupSmFactory);

void NatMgroupSm::hasNotificationActiveIs(bool active) {
    if (active == notificationActive_)
        return;
    notificationActive_ = active;
    requestReactor_.registeredIs(active);
    statusReactor_.registeredIs(active);
}

void NatMgroupSm::mgroupRequestSetDispatch(const State::Notification& change) {
    if (!retired_ && change.attribute == NatMgroupRequestSet::mgroupReqAttribute)
        handleMgroupReq(NatMrouteKey(change.keyAs<NatMrouteKey>()));
}

void NatMgroupSm::l3MgroupStatusDispatch(const State::Notification& change) {
    if (!retired_ && change.attribute == MgroupColl::mgroupsAttribute)
        handleMcastGroupIds(KestrelL3::IpMcastKey(change.keyAs<KestrelL3::IpMcastKey>()));
}

} // namespace KestrelNat
