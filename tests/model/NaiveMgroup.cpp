#include "tests/model/NaiveMgroup.h"

namespace Model {

NaiveMgroup::NaiveMgroup(const Stores& stores, Observation& seen)
    : stores_(stores)
    , seen_(seen) {}

void NaiveMgroup::start() {
    const OrderedSet<RequestKey> requests = stores_.mgroupRequests;
    for (const RequestKey& request : requests)
        requestChanged(request);
    seen_.mgroupReady = true;
    const OrderedSet<GroupKey> config = seen_.groupConfig;
    for (const GroupKey& group : config)
        statusChanged(group);
}

void NaiveMgroup::stop() {
    seen_.mgroupRequesters.clear();
}

void NaiveMgroup::requestChanged(const RequestKey& request) {
    const Flow flow = {request.vrfId, request.source, request.group};
    const GroupKey group = {static_cast<std::uint16_t>(request.vrfId & 0xffffU), request.source,
                            request.group, request.vlan};
    OrderedSet<Requester> requesters = seen_.mgroupRequesters.get(flow);
    if (stores_.mgroupRequests.has(request)) {
        requesters.put({request.intf, request.vlan});
        seen_.mgroupRequesters.put(flow, requesters);
        seen_.groupConfig.put(group);
        if (const std::uint32_t* groupId = stores_.groupStatus.find(group))
            seen_.groupIds.put(request, *groupId);
        return;
    }
    requesters.erase({request.intf, request.vlan});
    if (requesters.empty())
        seen_.mgroupRequesters.erase(flow);
    else
        seen_.mgroupRequesters.put(flow, requesters);
    seen_.groupIds.erase(request);
    seen_.groupConfig.erase(group);
}

void NaiveMgroup::statusChanged(const GroupKey& group) {
    const Flow flow = {group.vrfId, group.source, group.group};
    const OrderedSet<Requester> requesters = seen_.mgroupRequesters.get(flow);
    for (const Requester& requester : requesters) {
        const RequestKey response = {requester.intf, flow.vrfId, requester.vlan, flow.source, flow.group, 1};
        const std::uint32_t* groupId = stores_.groupStatus.find(group);
        if (groupId == nullptr) {
            seen_.groupIds.erase(response);
            return;
        }
        seen_.groupIds.put(response, *groupId);
    }
}

} // namespace Model
