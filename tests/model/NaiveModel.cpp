#include "tests/model/NaiveModel.h"

namespace Model {

NaiveModel::NaiveModel(Source source)
    : source_(source)
    , mroute_(source, stores_, seen_)
    , mgroup_(stores_, seen_) {
    if (source == Source::quill)
        for (const RouteType type : routeTypes)
            stores_.tables.put({"default", type}, Table());
}

void NaiveModel::start() {
    seen_.mounted.insert("routing/multicast/routestatus/default/static");
    seen_.mounted.insert("routing/multicast/routestatus/default/sparsemode");
    started_ = true;
    const auto vrfs = stores_.vrfEnabled;
    for (const auto& [vrf, enabled] : vrfs)
        handleVrf(vrf);
    mroute_.start();
    mrouteStarted_ = true;
    mgroup_.start();
}

void NaiveModel::stop() {
    mgroup_.stop();
    mroute_.stop();
    seen_.vrfIds.clear();
    seen_.routeMap.clear();
    mrouteStarted_ = false;
    started_ = false;
}

void NaiveModel::vrfStatusIs(const std::string& vrf, std::uint32_t vrfId) {
    if (stores_.vrfStatus.put(vrf, vrfId))
        handleVrf(vrf);
}

void NaiveModel::vrfStatusReplaced(const std::string& vrf, std::uint32_t vrfId) {
    stores_.vrfStatus.put(vrf, vrfId);
    handleVrf(vrf); // for the collection's member
    handleVrf(vrf); // for the watcher of the entry, which is pointed at the new one
}

void NaiveModel::vrfStatusDel(const std::string& vrf) {
    if (stores_.vrfStatus.erase(vrf))
        handleVrf(vrf);
}

void NaiveModel::vrfEnabledIs(const std::string& vrf, bool enabled) {
    if (stores_.vrfEnabled.put(vrf, enabled))
        handleVrf(vrf);
}

void NaiveModel::vrfEnabledDel(const std::string& vrf) {
    if (stores_.vrfEnabled.erase(vrf))
        handleVrf(vrf);
}

void NaiveModel::handleVrf(const std::string& vrf) {
    if (!started_)
        return;
    if (!stores_.vrfEnabled.get(vrf)) {
        removeVrf(vrf);
        return;
    }
    const std::uint32_t* vrfId = stores_.vrfStatus.find(vrf);
    if (vrfId == nullptr || (*vrfId == 0 && vrf != "default"))
        return;
    addVrf(vrf, *vrfId);
}

void NaiveModel::addVrf(const std::string& vrf, std::uint32_t vrfId) {
    if (seen_.vrfIds.has(vrf) || vrfId > 0x00ffffffU)
        throw Fatal("VRF " + vrf + " can't be added with the identifier " + std::to_string(vrfId));
    seen_.vrfIds.put(vrf, vrfId);
    for (const RouteType type : routeTypes) {
        const TableName name = {vrf, type};
        seen_.mounted.insert(mountPath(name));
        if (!stores_.tables.has(name)) {
            if (source_ == Source::quill)
                throw Fatal("route table " + text(name) + " isn't there");
            continue;
        }
        const TableKey table = {vrfId, routeTypeName(source_, type)};
        if (seen_.routeMap.put(table, name) && mrouteStarted_)
            mroute_.tableEntered(table);
    }
}

void NaiveModel::removeVrf(const std::string& vrf) {
    if (!seen_.vrfIds.has(vrf))
        return;
    const std::uint32_t vrfId = seen_.vrfIds.at(vrf);
    seen_.vrfIds.erase(vrf);
    for (const RouteType type : routeTypes) {
        const TableKey table = {vrfId, routeTypeName(source_, type)};
        if (seen_.routeMap.erase(table))
            mroute_.tableLeft(table);
        seen_.mounted.erase(mountPath({vrf, type}));
    }
}

std::string NaiveModel::mountPath(const TableName& table) const {
    // All VRFs share the two mounts of the Lumen source.
    return source_ == Source::lumen
               ? "lumen/multicast/fib/ipv4/" + routeTypeName(source_, table.type)
               : "routing/multicast/routestatus/" + table.vrf + "/" + routeTypeName(source_, table.type);
}

void NaiveModel::tableIs(const TableName& table) {
    if (!stores_.tables.has(table))
        stores_.tables.put(table, Table());
}

void NaiveModel::tableDel(const TableName& table) {
    stores_.tables.erase(table);
}

void NaiveModel::quillRouteIs(const TableName& table, const RouteKey& key,
                              const std::vector<std::uint16_t>& oifs) {
    if (stores_.tables.at(table).routes.put(key, {oifs, {}, 1}))
        mroute_.rowChanged(table, key);
}

void NaiveModel::oifIndexIntfIs(const TableName& table, std::uint16_t index, const std::string& intf) {
    if (stores_.tables.at(table).oifIndexIntf.put(index, intf))
        mroute_.oifRowChanged(table);
}

void NaiveModel::oifIndexIntfDel(const TableName& table, std::uint16_t index) {
    if (stores_.tables.at(table).oifIndexIntf.erase(index))
        mroute_.oifRowChanged(table);
}

void NaiveModel::lumenRouteIs(const TableName& table, const RouteKey& key, const Names& intfs,
                              std::uint32_t ready) {
    OrderedMap<RouteKey, Route>& routes = stores_.tables.at(table).routes;
    const bool isNew = !routes.has(key);
    if (!routes.put(key, {{}, intfs, ready}))
        return;
    if (isNew)
        mroute_.rowChanged(table, key);
    else
        mroute_.versionChanged(table, key);
}

void NaiveModel::lumenRouteUntold(const TableName& table, const RouteKey& key, const Names& intfs,
                                  std::uint32_t ready) {
    stores_.tables.at(table).routes.at(key) = {{}, intfs, ready};
}

void NaiveModel::lumenRouteReplaced(const TableName& table, const RouteKey& key, const Names& intfs,
                                    std::uint32_t ready) {
    stores_.tables.at(table).routes.at(key) = {{}, intfs, ready};
    mroute_.rowChanged(table, key);
}

void NaiveModel::routeDel(const TableName& table, const RouteKey& key) {
    if (stores_.tables.at(table).routes.erase(key))
        mroute_.rowChanged(table, key);
}

void NaiveModel::mrouteRequestIs(const RequestKey& key) {
    if (stores_.mrouteRequests.put(key) && started_)
        mroute_.requestChanged(key);
}

void NaiveModel::mrouteRequestDel(const RequestKey& key) {
    if (stores_.mrouteRequests.erase(key) && started_)
        mroute_.requestChanged(key);
}

void NaiveModel::egressFromAllVrfsIs(bool all) {
    stores_.egressFromAllVrfs = all;
}

void NaiveModel::mgroupRequestIs(const RequestKey& key) {
    if (stores_.mgroupRequests.put(key) && started_)
        mgroup_.requestChanged(key);
}

void NaiveModel::mgroupRequestDel(const RequestKey& key) {
    if (stores_.mgroupRequests.erase(key) && started_)
        mgroup_.requestChanged(key);
}

void NaiveModel::groupStatusIs(const GroupKey& key, std::uint32_t groupId) {
    if (stores_.groupStatus.put(key, groupId) && started_)
        mgroup_.statusChanged(key);
}

void NaiveModel::groupStatusDel(const GroupKey& key) {
    if (stores_.groupStatus.erase(key) && started_)
        mgroup_.statusChanged(key);
}

} // namespace Model
