#include "tests/model/NaiveModel.h"

#include <algorithm>

namespace Model {

NaiveModel::NaiveModel(Source source)
    : world_(source) {
    if (source == Source::quill)
        for (const RouteType type : routeTypes)
            stores_.tables.put({"default", type}, Table());
}

Outcome NaiveModel::apply(const Operation& operation) {
    seen_.said.clear();
    const World before = world_;
    try {
        carryOut(operation);
        return Outcome::done;
    } catch (const Fatal&) {
        world_ = before;
        return Outcome::fatal;
    } catch (const Idle&) {
        world_ = before;
        return Outcome::idle;
    }
}

void NaiveModel::carryOut(const Operation& operation) {
    std::visit(Each{
                   [&](const PlugIn& op) {
                       if (op.isLoaded == world_.isLoaded)
                           throw Idle("it is as it is");
                       op.isLoaded ? start() : stop();
                   },
                   [&](const VrfStatus& op) { vrfStatus(op); },
                   [&](const VrfEnabled& op) { vrfEnabled(op); },
                   [&](const TableIs& op) { table(op); },
                   [&](const QuillRoute& op) {
                       auto& routes = tableOf(Source::quill, op.table).routes;
                       if (op.oifs ? routes.put(op.key, {*op.oifs, {}, 1}) : routes.erase(op.key))
                           mroute_.rowChanged(op.table, op.key);
                   },
                   [&](const OifRow& op) {
                       auto& rows = tableOf(Source::quill, op.table).oifIndexIntf;
                       if (op.intf ? rows.put(op.index, *op.intf) : rows.erase(op.index))
                           mroute_.oifRowChanged(op.table, op.index);
                   },
                   [&](const LumenRoute& op) { lumenRoute(op); },
                   [&](const Request& op) {
                       const bool isMroute = op.service == Service::mroute;
                       auto& requests = isMroute ? stores_.mrouteRequests : stores_.mgroupRequests;
                       if (!(op.isThere ? requests.put(op.key) : requests.erase(op.key)) || !world_.isLoaded)
                           return;
                       isMroute ? mroute_.requestChanged(op.key) : mgroup_.requestChanged(op.key);
                   },
                   [&](const EgressFromAllVrfs& op) { stores_.egressFromAllVrfs = op.isOn; },
                   [&](const GroupStatus& op) { mgroup_.statusIs(op.key, op.groupId); },
                   [&](const Chip& op) { stores_.hasChip = op.isThere; },
               },
               operation);
}

void NaiveModel::start() {
    world_.detail(6, "doInit", "NatMulticastMounter::doInit");
    for (const RouteType type : routeTypes)
        seen_.mounted.insert("routing/multicast/routestatus/default/" + routeTypeName(Source::quill, type));
    world_.detail(6, "doMountsComplete", "NatMulticastMounter::doMountsComplete");
    world_.detail(6, "handleInitialized", "NatVrfDirSm::handleInitialized");
    world_.isLoaded = true;
    const auto vrfs = stores_.vrfEnabled;
    for (const auto& [vrf, enabled] : vrfs)
        handleVrf(vrf);
    mroute_.start();
    world_.isMrouteThere = true;
    mgroup_.start();
}

void NaiveModel::stop() {
    mgroup_.stop();
    mroute_.stop();
    seen_.vrfIds.clear();
    seen_.routeMap.clear();
    world_.isMrouteThere = false;
    world_.isLoaded = false;
}

void NaiveModel::vrfStatus(const VrfStatus& op) {
    const bool wasThere = stores_.vrfStatus.has(op.vrf);
    const bool isChange =
        op.vrfId ? stores_.vrfStatus.put(op.vrf, *op.vrfId) : stores_.vrfStatus.erase(op.vrf);
    if (isChange || op.isAnotherEntry)
        handleVrf(op.vrf); // for the collection's member, or for the entry
    if (wasThere && op.isAnotherEntry)
        handleVrf(op.vrf); // for the watcher of the entry, which is pointed at the new one
}

void NaiveModel::vrfEnabled(const VrfEnabled& op) {
    if (op.isOn ? stores_.vrfEnabled.put(op.vrf, *op.isOn) : stores_.vrfEnabled.erase(op.vrf))
        handleVrf(op.vrf);
}

void NaiveModel::table(const TableIs& op) {
    if (op.isThere && !stores_.tables.has(op.table))
        stores_.tables.put(op.table, Table());
    if (op.isThere)
        return;
    const bool isUsed = std::any_of(seen_.routeMap.begin(), seen_.routeMap.end(),
                                    [&op](const auto& member) { return member.second == op.table; });
    if (world_.source == Source::quill || isUsed)
        throw Idle("the table stays");
    stores_.tables.erase(op.table);
}

void NaiveModel::lumenRoute(const LumenRoute& op) {
    auto& routes = tableOf(Source::lumen, op.table).routes;
    const bool wasThere = routes.has(op.key);
    if (!op.intfs) {
        if (routes.erase(op.key))
            mroute_.rowChanged(op.table, op.key);
        return;
    }
    const bool isChange = routes.put(op.key, {{}, *op.intfs, op.ready});
    if (!wasThere || op.writing == Writing::replaced)
        mroute_.rowChanged(op.table, op.key);
    else if (isChange && op.writing == Writing::told)
        mroute_.versionChanged(op.table, op.key);
}

Table& NaiveModel::tableOf(Source source, const TableName& name) {
    if (world_.source != source || !stores_.tables.has(name))
        throw Idle("there is no such table");
    return stores_.tables.at(name);
}

void NaiveModel::handleVrf(const std::string& vrf) {
    if (!world_.isLoaded)
        return;
    const auto trace = [&](const std::string& message) {
        world_.detail(8, "handleVrf", "NatVrfDirSm::handleVrf " + message + "vrfName=" + vrf);
    };
    trace("");
    if (!stores_.vrfEnabled.get(vrf)) {
        if (seen_.vrfIds.has(vrf)) {
            trace("removing ");
            removeVrf(vrf);
        }
        return;
    }
    const std::uint32_t* vrfId = stores_.vrfStatus.find(vrf);
    if (vrfId == nullptr)
        return;
    if (*vrfId == 0 && vrf != "default") {
        trace("will wait for vrfId to be updated for ");
        return;
    }
    trace("adding ");
    addVrf(vrf, *vrfId);
}

void NaiveModel::addVrf(const std::string& vrf, std::uint32_t vrfId) {
    if (seen_.vrfIds.has(vrf) || vrfId > 0x00ffffffU)
        throw Fatal("VRF " + vrf + " can't be added with the identifier " + std::to_string(vrfId));
    world_.put("vrfNameToId", seen_.vrfIds, vrf, vrfId);
    for (const RouteType type : routeTypes) {
        const TableName name = {vrf, type};
        seen_.mounted.insert(mountPath(world_.source, name));
        if (!stores_.tables.has(name)) {
            if (world_.source == Source::quill)
                throw Fatal("route table " + text(name) + " isn't there");
            world_.detail(8, "handleVrf",
                          std::string("Lumen mfib not found for ") +
                              (type == RouteType::plain ? "static mode" : "sparsemode") + ", vrfName=" + vrf);
            continue;
        }
        const TableKey table = {vrfId, routeTypeName(world_.source, type)};
        const bool isChange =
            world_.put(world_.source == Source::quill ? "mrouteRoute" : "mfib", seen_.routeMap, table, name);
        if (isChange && world_.isMrouteThere)
            mroute_.tableEntered(table);
    }
}

void NaiveModel::removeVrf(const std::string& vrf) {
    const std::uint32_t vrfId = seen_.vrfIds.at(vrf);
    world_.erase("vrfNameToId", seen_.vrfIds, vrf);
    for (const RouteType type : routeTypes) {
        const TableKey table = {vrfId, routeTypeName(world_.source, type)};
        if (world_.erase(world_.source == Source::quill ? "mrouteRoute" : "mfib", seen_.routeMap, table))
            mroute_.tableLeft(table);
        seen_.mounted.erase(mountPath(world_.source, {vrf, type}));
    }
}

} // namespace Model
