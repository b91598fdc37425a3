// The request side of the mgroup service: a request becomes a row of the group configuration, and is answered
// at once where its group is allocated already.
#include "KestrelNat/KestrelNatMulticastSm/NatMgroupSm.h"
#include "KestrelNat/KestrelNatMulticastSm/Requesters.h"
#include "state/Trace.h"

TRACE_FACILITY("KestrelNatMulticastSm");

namespace KestrelNat {

namespace {

// The row of the group tables for a request. Only the low 16 bits of the VRF's identifier fit it: the tables
// do not tell apart VRFs that have them in common, and this is meant to be so.
KestrelL3::IpMcastKey groupKeyOf(const NatMrouteKey& key) {
    const auto lowBits = static_cast<std::uint16_t>(key.vrfId.value() & 0xffffU);
    return State::whole<KestrelL3::IpMcastKey>(lowBits, key.sourceIp, key.groupIp, key.vlanId);
}

} // namespace

void NatMgroupSm::handleMgroupReq(const NatMrouteKey& key) {
    const bool isPresent = mgroupRequestSet_ && mgroupRequestSet_->mgroupReqHas(key);
    TRACE(8, "handleMgroupReq", isPresent ? " adding " : " deleting ", "group ", key);
    if (isPresent)
        addRequest(key);
    else
        deleteRequest(key);
}

void NatMgroupSm::handleMgroupReq() {
    TRACE(8, "handleMgroupReq", " checking all mgroups being watched");
    if (mgroupRequestSet_)
        for (const NatMrouteKey key :
             mgroupRequestSet_->mgroupReq()) // a copy: reactors may change the requests
            handleMgroupReq(key);
    if (multicastSmStatus_)
        multicastSmStatus_->mgroupSmReadyIs(true);
}

void NatMgroupSm::addRequest(const NatMrouteKey& key) {
    recordRequester(vrfIdSourceAndGroupToIntf_, key);
    const KestrelL3::IpMcastKey groupKey = groupKeyOf(key);
    if (l3MgroupConfig_)
        l3MgroupConfig_->mroutesIs(KestrelCommon::MrouteGroup::MrouteItem(groupKey));
    const auto item = statusItem(groupKey);
    if (item && mgroupResponseMap_)
        mgroupResponseMap_->mgroupIdIs(key, item->groupId());
}

void NatMgroupSm::deleteRequest(const NatMrouteKey& key) {
    forgetRequester(vrfIdSourceAndGroupToIntf_, key);
    if (mgroupResponseMap_)
        mgroupResponseMap_->mgroupIdDel(key);
    // Meant: the row goes although a request that differs only in its interface may still want it. The next
    // request for the row writes it again.
    if (l3MgroupConfig_)
        l3MgroupConfig_->mroutesDel(groupKeyOf(key));
}

} // namespace KestrelNat
