#include "tests/model/NaiveMgroup.h"

namespace Model {

NaiveMgroup::NaiveMgroup(World& world)
    : world_(world)
    , stores_(world.stores)
    , seen_(world.seen) {}

void NaiveMgroup::start() {
    world_.trace(8, "handleMgroupReq", " checking all mgroups being watched");
    const OrderedSet<RequestKey> requests = stores_.mgroupRequests;
    for (const RequestKey& request : requests)
        requestChanged(request);
    if (!seen_.mgroupReady)
        seen_.said.push_back(heard("ready", std::string("mgroup"), true));
    seen_.mgroupReady = true;
    world_.trace(8, "handleMcastGroupIds", " handling all watched mcast groups");
    const OrderedSet<GroupKey> config = seen_.groupConfig;
    for (const GroupKey& group : config)
        handleGroupId(group);
}

void NaiveMgroup::stop() {
    seen_.mgroupRequesters.clear();
}

void NaiveMgroup::requestChanged(const RequestKey& request) {
    const bool added = stores_.mgroupRequests.has(request);
    world_.trace(8, "handleMgroupReq", (added ? " adding group " : " deleting group ") + text(request));
    const Flow flow = {request.vrfId, request.source, request.group};
    const GroupKey group = {static_cast<std::uint16_t>(request.vrfId & 0xffffU), request.source,
                            request.group, request.vlan};
    OrderedSet<Requester> requesters = seen_.mgroupRequesters.get(flow);
    if (added) {
        requesters.put({request.intf, request.vlan});
        seen_.mgroupRequesters.put(flow, requesters);
        configIs(group);
        if (const std::uint32_t* groupId = stores_.groupStatus.find(group))
            world_.put("mgroupId", seen_.groupIds, request, *groupId);
        return;
    }
    requesters.erase({request.intf, request.vlan});
    if (requesters.empty())
        seen_.mgroupRequesters.erase(flow);
    else
        seen_.mgroupRequesters.put(flow, requesters);
    world_.erase("mgroupId", seen_.groupIds, request);
    configDel(group);
}

void NaiveMgroup::statusIs(const GroupKey& group, const std::optional<std::uint32_t>& groupId) {
    if ((groupId ? stores_.groupStatus.put(group, *groupId) : stores_.groupStatus.erase(group)) &&
        world_.isLoaded)
        handleGroupId(group);
}

void NaiveMgroup::handleGroupId(const GroupKey& group) {
    constexpr const char* function = "handleMcastGroupIds";
    const std::string addresses = "sourceIp=" + dotted(group.source) + " groupIp=" + dotted(group.group);
    const std::string key = " groupId for key (s=" + dotted(group.source) + ", g=" + dotted(group.group) +
                            ", v=" + std::to_string(group.vlan) + ")";
    world_.trace(8, function, " handling key with vrfId=" + std::to_string(group.vrfId));
    const Flow flow = {group.vrfId, group.source, group.group};
    if (!seen_.mgroupRequesters.has(flow)) {
        world_.trace(0, function, " NOT found " + addresses);
        return;
    }
    world_.trace(8, function, " found " + addresses);
    const OrderedSet<Requester> requesters = seen_.mgroupRequesters.at(flow);
    for (const Requester& requester : requesters) {
        const RequestKey response = {requester.intf, flow.vrfId, requester.vlan, flow.source, flow.group, 1};
        const std::uint32_t* groupId = stores_.groupStatus.find(group);
        if (groupId == nullptr) {
            world_.detail(8, function, "removed" + key);
            world_.erase("mgroupId", seen_.groupIds, response);
            return;
        }
        world_.detail(8, function, "updated" + key + ", newGroupId=" + std::to_string(*groupId));
        world_.put("mgroupId", seen_.groupIds, response, *groupId);
    }
}

void NaiveMgroup::configIs(const GroupKey& group) {
    if (!seen_.groupConfig.put(group))
        return;
    seen_.said.push_back(heard("mroutes", group, true));
    if (stores_.hasChip)
        statusIs(group, ++stores_.chipGroups);
}

void NaiveMgroup::configDel(const GroupKey& group) {
    if (world_.erase("mroutes", seen_.groupConfig, group) && stores_.hasChip)
        statusIs(group, std::nullopt);
}

} // namespace Model
