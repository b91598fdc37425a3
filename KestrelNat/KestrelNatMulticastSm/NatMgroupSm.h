// KestrelNat::NatMgroupSm: answers which hardware multicast group the chip uses for a flow. For each request
// it writes the row that asks the hardware layer for a group (the group configuration), and it copies the
// group's id, once the group status holds one, into the responses. Made by the mounter
// (NatMulticastMounter.h) after its mounts; it reads no route state. Requests are handled in
// NatMgroupRequests.cpp, group ids in NatMgroupIds.cpp.
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMulticastKeys.h"
#include "records/MrouteGroup.h"
#include "records/NatMgroup.h"
#include "records/NatStatus.h"
#include "state/Collection.h"
#include "state/StateMachine.h"

#include <optional>

namespace KestrelNat {

class NatMgroupSm final : public State::StateMachine {
  public:
    using MrouteColl = KestrelCommon::MrouteGroup::MrouteColl;
    using MgroupColl = KestrelCommon::MrouteGroup::MgroupColl;

    /// Makes the state machine, which handles every request and group that is there, and switches notification
    /// on. Inputs may be null: what would be read from a null one is absent, what would be written to it is
    /// dropped.
    static State::Handle<NatMgroupSm> NatMgroupSmIs(State::Handle<const NatMgroupRequestSet> mgroupRequestSet,
                                                    State::Handle<NatMgroupResponseMap> mgroupResponseMap,
                                                    State::Handle<MulticastSmStatus> multicastSmStatus,
                                                    State::Handle<MrouteColl> l3MgroupConfig,
                                                    State::Handle<const MgroupColl> l3MgroupStatus);
    NatMgroupSm(State::Handle<const NatMgroupRequestSet> mgroupRequestSet,
                State::Handle<NatMgroupResponseMap> mgroupResponseMap,
                State::Handle<MulticastSmStatus> multicastSmStatus, State::Handle<MrouteColl> l3MgroupConfig,
                State::Handle<const MgroupColl> l3MgroupStatus);
    /// Responses and configuration rows stay where they are.
    ~NatMgroupSm() override;

    const State::Handle<const NatMgroupRequestSet>& mgroupRequestSet() const { return mgroupRequestSet_; }
    const State::Handle<NatMgroupResponseMap>& mgroupResponseMap() const { return mgroupResponseMap_; }
    const State::Handle<MulticastSmStatus>& multicastSmStatus() const { return multicastSmStatus_; }
    const State::Handle<MrouteColl>& l3MgroupConfig() const { return l3MgroupConfig_; }
    const State::Handle<const MgroupColl>& l3MgroupStatus() const { return l3MgroupStatus_; }

    /// Turns both reactors on or off; changes that come while they are off are lost.
    void hasNotificationActiveIs(bool active);

    void mgroupRequestSetDispatch(const State::Notification& change);
    void l3MgroupStatusDispatch(const State::Notification& change);

    /// Brings record, configuration and response in line with the presence of one request. The key is taken as
    /// it is.
    void handleMgroupReq(const NatMrouteKey& key);
    /// The same for every request that is there; reports the service ready afterwards.
    void handleMgroupReq();

    /// Brings the responses of one (VRF, source, group) in line with one row of the group status.
    void handleMcastGroupIds(const KestrelL3::IpMcastKey& key);
    /// The same for every row of the group configuration.
    void handleMcastGroupIds();

  private:
    void addRequest(const NatMrouteKey& key);
    void deleteRequest(const NatMrouteKey& key);
    // Reads a row of the group status: nothing when absent, the default item when the row is damaged.
    std::optional<KestrelCommon::MrouteGroup::MgroupItem> statusItem(const KestrelL3::IpMcastKey& key) const;

    // In attribute order (numbers 0 to 5), which the destructor undoes from the last to the first.
    State::Handle<const NatMgroupRequestSet> mgroupRequestSet_;
    State::Handle<NatMgroupResponseMap> mgroupResponseMap_;
    State::Handle<MulticastSmStatus> multicastSmStatus_;
    State::Handle<MrouteColl> l3MgroupConfig_;
    State::Handle<const MgroupColl> l3MgroupStatus_;

    // Who asks for a (VRF, source, group), by interface and VLAN. No member holds an empty set: addRequest
    // and deleteRequest, its only writers, keep it so.
    STATE_MAP(5, vrfIdSourceAndGroupToIntf, VrfIdMrouteSourceAndGroup, MrouteIntfAndVlanSet, 517662159U)

  private:
    State::Reactor requestReactor_;
    State::Reactor statusReactor_;
};

/// The same as NatMgroupSm::NatMgroupSmIs; registered for creation by type name.
State::Handle<NatMgroupSm>
natMgroupSmFactory(State::Handle<const NatMgroupRequestSet> mgroupRequestSet,
                   State::Handle<NatMgroupResponseMap> mgroupResponseMap,
                   State::Handle<MulticastSmStatus> multicastSmStatus,
                   State::Handle<KestrelCommon::MrouteGroup::MrouteColl> l3MgroupConfig,
                   State::Handle<const KestrelCommon::MrouteGroup::MgroupColl> l3MgroupStatus);

} // namespace KestrelNat
