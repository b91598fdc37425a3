// The answering side of the mgroup service: follows the group status and keeps the responses of each
// requested (VRF, source, group) in step with it.
#include "KestrelNat/KestrelNatMulticastSm/NatMgroupSm.h"
#include "KestrelNat/KestrelNatMulticastSm/Requesters.h"
#include "state/Errors.h"
#include "state/Trace.h"

TRACE_FACILITY("KestrelNatMulticastSm");

namespace KestrelNat {

using KestrelCommon::MrouteGroup::MgroupItem;
using KestrelCommon::MrouteGroup::MrouteItem;

void NatMgroupSm::handleMcastGroupIds(const KestrelL3::IpMcastKey& key) {
    TRACE(8, "handleMcastGroupIds", " handling key with vrfId=", key.vrfId);
    if (!key.source.isIpv4() || !key.group.isIpv4()) { // no request has such addresses
        TRACE(0, "handleMcastGroupIds", " ignoring key that is not IPv4, source=", key.source,
              " group=", key.group);
        return;
    }
    const auto sg = State::whole<MrouteSourceAndGroup>(key.source.ipv4(), key.group.ipv4());
    const auto flow = State::whole<VrfIdMrouteSourceAndGroup>(key.vrfId, sg);
    const auto* found = vrfIdSourceAndGroupToIntf_.find(flow);
    if (found == nullptr) {
        TRACE(0, "handleMcastGroupIds", " NOT found sourceIp=", sg.sourceIp, " groupIp=", sg.groupIp);
        return;
    }
    TRACE(8, "handleMcastGroupIds", " found sourceIp=", sg.sourceIp, " groupIp=", sg.groupIp);
    // A copy: reactors of the responses may change the requests.
    const MrouteIntfAndVlanSet requesters = *found;

    // Meant: the status row's VLAN does not choose among the requesters, so those of every VLAN of the flow
    // get its id, each under a key of type 1 whatever the type of its request.
    requesters.iv().visit([&](const MrouteIntfAndVlan& requester) {
        const NatMrouteKey responseKey = requestKey(flow, requester, NatRequestType::mgroupRequest);
        if (const auto item = statusItem(key)) {
            TRACE_AS(8, "handleMcastGroupIds", "updated groupId for key (s=", sg.sourceIp, ", g=", sg.groupIp,
                     ", v=", key.vlanId, "), newGroupId=", item->groupId());
            if (mgroupResponseMap_) {
                mgroupResponseMap_->mgroupIdIs(responseKey, item->groupId());
            }
            return true;
        }
        TRACE_AS(8, "handleMcastGroupIds", "removed groupId for key (s=", sg.sourceIp, ", g=", sg.groupIp,
                 ", v=", key.vlanId, ")");
        if (mgroupResponseMap_) {
            mgroupResponseMap_->mgroupIdDel(responseKey);
        }
        return false; // meant: only the requester reached first loses its response, the others keep theirs
    });
}

void NatMgroupSm::handleMcastGroupIds() {
    TRACE(8, "handleMcastGroupIds", " handling all watched mcast groups");
    if (!l3MgroupConfig_)
        return;
    try {
        l3MgroupConfig_->mroutes([&](const MrouteItem& item) {
            handleMcastGroupIds(item.key());
            return true;
        });
    } catch (const State::CorruptionError& error) {
        l3MgroupConfig_->doCorruptionDetected(error.what());
    }
}

std::optional<MgroupItem> NatMgroupSm::statusItem(const KestrelL3::IpMcastKey& key) const {
    if (!l3MgroupStatus_)
        return std::nullopt;
    try {
        return l3MgroupStatus_->mgroup(key);
    } catch (const State::CorruptionError& error) {
        l3MgroupStatus_->doCorruptionDetected(error.what());
        return MgroupItem{};
    }
}

} // namespace KestrelNat
