// Who asks for a flow, as both services record it: the requesters of each (VRF, source, group) by interface and VLAN,
// and the way back from the record to a request's key. No flow has an empty set: these functions, the only writers,
// keep it so.
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMulticastKeys.h"
#include "state/Collection.h"

namespace KestrelNat {

using RequesterMap = State::MapAttribute<VrfIdMrouteSourceAndGroup, MrouteIntfAndVlanSet>;

/// Changes a set of a map: what that makes of the map's member.
template <class Set, class Change>
State::Edited editSet(Set& set, Change change) {
    const std::size_t before = set.elementCount();
    change(set);
    if (!set)
        return State::Edited::remove;
    return set.elementCount() == before ? State::Edited::unchanged : State::Edited::changed;
}

inline void recordRequester(RequesterMap& requesters, const NatMrouteKey& request) {
    requesters.edit(VrfIdMrouteSourceAndGroup::of(request), [&](MrouteIntfAndVlanSet& ofFlow) {
        return editSet(ofFlow, [&](MrouteIntfAndVlanSet& set) { set.ivIs(MrouteIntfAndVlan::of(request)); });
    });
}

inline void forgetRequester(RequesterMap& requesters, const NatMrouteKey& request) {
    requesters.edit(VrfIdMrouteSourceAndGroup::of(request), [&](MrouteIntfAndVlanSet& ofFlow) {
        return editSet(ofFlow, [&](MrouteIntfAndVlanSet& set) { set.ivDel(MrouteIntfAndVlan::of(request)); });
    });
}

/// The key of a request, rebuilt. The record knows no types: `type` is the caller's.
inline NatMrouteKey requestKey(const VrfIdMrouteSourceAndGroup& flow, const MrouteIntfAndVlan& requester,
                               NatRequestType type) {
    // A new member of one of the parts does not compile until it is bound here.
    const auto& [vrfId, sg] = flow;
    const auto& [sourceIp, groupIp] = sg;
    const auto& [intf, vlanId] = requester;
    return State::whole<NatMrouteKey>(intf, vrfId, vlanId, sourceIp, groupIp, type);
}

} // namespace KestrelNat
