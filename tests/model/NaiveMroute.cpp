#include "tests/model/NaiveMroute.h"

namespace Model {

namespace {

constexpr const char* resolving = "getEgressIntfsFromCurrentVrf";
constexpr std::uint16_t nullOif = 512; // ends a row's list

Flow flowOf(const RequestKey& request) {
    return {request.vrfId, request.source, request.group};
}

bool matches(const Watched& watched, Address source, Address group) {
    return watched.groupsWithAnySource.has(group) || watched.sourcesWithAnyGroup.has(source) ||
           watched.sourceGroups.has({source, group});
}

template <class Key>
void addTo(OrderedMap<Key, OrderedSet<RequestKey>>& collection, const Key& key, const RequestKey& request) {
    OrderedSet<RequestKey> set = collection.get(key);
    set.put(request);
    collection.put(key, set);
}

template <class Key>
void removeFrom(OrderedMap<Key, OrderedSet<RequestKey>>& collection, const Key& key,
                const RequestKey& request) {
    OrderedSet<RequestKey> set = collection.get(key);
    set.erase(request);
    if (set.empty())
        collection.erase(key);
    else
        collection.put(key, set);
}

std::string prefixes(const RouteKey& route) {
    return "(S=" + text(route.source) + " G=" + text(route.group) + ")";
}

} // namespace

NaiveMroute::NaiveMroute(World& world)
    : world_(world)
    , source_(world.source)
    , stores_(world.stores)
    , seen_(world.seen) {}

void NaiveMroute::start() {
    for (const RouteType type : routeTypes)
        seen_.answersByType.put(routeTypeName(source_, type), Answers());
    handleAllRequests();
    const auto tables = seen_.routeMap;
    for (const auto& [table, name] : tables)
        tableEntered(table);
}

void NaiveMroute::stop() {
    const auto watchers = seen_.watchers;
    for (const auto& [table, routes] : watchers)
        handleDeletion(table);
    seen_.answersByType.clear();
    seen_.mrouteRequesters.clear();
    seen_.watched.clear();
    seen_.watchers.clear();
}

void NaiveMroute::requestChanged(const RequestKey& request) {
    handleRequest(request);
}

void NaiveMroute::tableEntered(const TableKey& table) {
    if (seen_.watchers.has(table)) {
        tableReplaced(table);
        return;
    }
    handleWholeTable(table);
    std::set<RouteKey> watchedRoutes;
    if (source_ == Source::quill)
        handleEveryOif(table); // the second pass that a new watcher of a route table makes
    else
        for (const RouteKey& route : tableOrder(tableAt(table)))
            watchedRoutes.insert(route);
    seen_.watchers.put(table, watchedRoutes);
}

// The watcher is pointed at another table, of which no route is looked at but those whose own watchers are pointed at
// another route of the same key.
void NaiveMroute::tableReplaced(const TableKey& table) {
    if (source_ == Source::quill)
        return;
    std::set<RouteKey> watchedRoutes;
    for (const RouteKey& route : tableOrder(tableAt(table))) {
        if (seen_.watchers.at(table).contains(route))
            handleRoute(route, table);
        watchedRoutes.insert(route);
    }
    seen_.watchers.put(table, watchedRoutes);
}

void NaiveMroute::tableLeft(const TableKey& table) {
    seen_.watchers.erase(table);
    handleDeletion(table);
}

void NaiveMroute::rowChanged(const TableName& name, const RouteKey& route) {
    const auto tables = seen_.routeMap;
    for (const auto& [table, itsName] : tables) {
        if (itsName != name || !seen_.watchers.has(table))
            continue;
        handleRoute(route, table);
        if (source_ == Source::lumen) {
            // A new or another route object is watched from here on. A replaced one makes its watcher look
            // again.
            std::set<RouteKey>& watchedRoutes = seen_.watchers.at(table);
            if (!tableAt(table).routes.has(route))
                watchedRoutes.erase(route);
            else if (!watchedRoutes.insert(route).second)
                handleRoute(route, table);
        }
    }
}

void NaiveMroute::oifRowChanged(const TableName& name, std::uint16_t index) {
    const auto tables = seen_.routeMap;
    for (const auto& [table, itsName] : tables) {
        if (itsName != name || !seen_.watchers.has(table))
            continue;
        world_.trace(8, "handleMcastOifUpdate",
                     " handling update for oif (id=" + std::to_string(index) +
                         " intf=" + tableAt(table).oifIndexIntf.get(index) + ") of type " + table.type);
        handleEveryRow(table);
    }
}

void NaiveMroute::versionChanged(const TableName& name, const RouteKey& route) {
    const auto tables = seen_.routeMap;
    for (const auto& [table, itsName] : tables)
        if (itsName == name && seen_.watchers.has(table) && seen_.watchers.at(table).contains(route))
            handleRoute(route, table);
}

void NaiveMroute::handleAllRequests() {
    world_.trace(8, "handleMrouteReq", " checking all mroutes being watched");
    const OrderedSet<RequestKey> requests = stores_.mrouteRequests;
    for (const RequestKey& request : requests)
        handleRequest(request);
    if (!seen_.mrouteReady)
        seen_.said.push_back(heard("ready", std::string("mroute"), true));
    seen_.mrouteReady = true;
}

void NaiveMroute::handleRequest(const RequestKey& request) {
    if (request.intf.empty() || request.vlan == 0)
        throw Fatal("a request names an interface and a VLAN");
    const bool added = stores_.mrouteRequests.has(request);
    world_.trace(8, "handleMrouteReq", (added ? " adding request " : " deleting request ") + text(request));
    OrderedSet<Requester> requesters = seen_.mrouteRequesters.get(flowOf(request));
    if (added) {
        watch(request);
        requesters.put({request.intf, request.vlan});
    } else {
        unwatch(request);
        requesters.erase({request.intf, request.vlan});
    }
    if (requesters.empty())
        seen_.mrouteRequesters.erase(flowOf(request));
    else
        seen_.mrouteRequesters.put(flowOf(request), requesters);
    for (const RouteType type : routeTypes)
        answerRequest(request, type, added);
}

void NaiveMroute::answerRequest(const RequestKey& request, RouteType type, bool added) {
    const TableKey table = {request.vrfId, routeTypeName(source_, type)};
    if (!seen_.routeMap.has(table)) {
        world_.trace(8, "updateMrouteResponseMap",
                     " route not found for vrfId=" + std::to_string(request.vrfId) +
                         " route type=" + table.type);
    } else if (added) {
        const Names egress = egressOf(request, table);
        world_.trace(8, "updateMrouteResponseMap", " assigning " + text(egress) + " to key " + text(request));
        updateResponse(egress, request, table.type, false);
    } else {
        updateResponse({}, request, table.type, true);
    }
}

void NaiveMroute::updateResponse(const Names& egress, const RequestKey& request, const std::string& type,
                                 bool removeEmpty) {
    world_.trace(8, "updateResponseMap", " responseMapKey=" + text(request) + " routeType=" + type);
    const std::string plain = routeTypeName(source_, RouteType::plain);
    const std::string otherType = type == plain ? routeTypeName(source_, RouteType::sparse) : plain;
    Answers& own = seen_.answersByType.at(type);
    Names whole = seen_.answersByType.at(otherType).get(request);
    whole.insert(egress.begin(), egress.end());
    if (egress.empty())
        own.erase(request);
    else
        own.put(request, egress);
    if (whole.empty() && removeEmpty)
        world_.erase("mrouteResp", seen_.mrouteAnswers, request);
    else
        world_.put("mrouteResp", seen_.mrouteAnswers, request, whole);
}

void NaiveMroute::handleWholeTable(const TableKey& table) {
    world_.trace(8, "handleMcastRouteUpdateAll", "");
    handleAllRequests();
    world_.trace(8, "handleMcastRouteUpdateAll", " handling all known mroutes of type " + table.type);
    handleEveryRow(table);
}

void NaiveMroute::handleEveryRow(const TableKey& table) {
    for (const RouteKey& route : tableOrder(tableAt(table)))
        handleRoute(route, table);
}

void NaiveMroute::handleEveryOif(const TableKey& table) {
    world_.trace(8, "handleMcastOifUpdate", " handling all known oifs of type " + table.type);
    handleEveryRow(table);
}

void NaiveMroute::handleRoute(const RouteKey& route, const TableKey& table) {
    constexpr const char* function = "handleMcastRouteUpdate";
    world_.trace(8, function, " handling update for mroute " + prefixes(route) + " of type " + table.type);
    const Table& rows = tableAt(table);
    if (source_ == Source::lumen && rows.routes.has(route) && rows.routes.at(route).ready != 1) {
        world_.trace(8, function, " skipping mroute " + prefixes(route) + " - route not ready");
        return;
    }
    if (!seen_.watched.has(table.vrfId))
        seen_.watched.put(table.vrfId, Watched()); // stays, though nothing is in it
    const Address source = route.source.address;
    const Address group = route.group.address;
    if (!matches(seen_.watched.at(table.vrfId), source, group)) {
        world_.trace(9, function, " skipping mroute= " + prefixes(route) + " of type " + table.type);
        return;
    }
    std::vector<Flow> flows;
    for (const Flow& flow :
         {Flow{table.vrfId, source, group}, Flow{table.vrfId, 0, group}, Flow{table.vrfId, source, 0}})
        if (source != 0 && seen_.mrouteRequesters.has(flow))
            flows.push_back(flow);
    if (source == 0)
        flows.push_back({table.vrfId, 0, group}); // a (*,G) route concerns (*,G) requests alone
    if (flows.empty())
        throw Fatal("a matched route concerns nobody");
    for (const Flow& flow : flows) {
        world_.detail(8, function, "found sg=(" + dotted(flow.source) + ", " + dotted(flow.group) + ")");
        if (!seen_.mrouteRequesters.has(flow))
            throw Fatal("a matched flow has no requesters");
        const OrderedSet<Requester> requesters = seen_.mrouteRequesters.at(flow);
        for (const Requester& requester : requesters) {
            const RequestKey rebuilt = {requester.intf, flow.vrfId, requester.vlan,
                                        flow.source,    flow.group, 0};
            const Names egress = egressOf(rebuilt, table);
            updateResponse(egress, rebuilt, table.type, true);
            world_.detail(8, function, "setting " + text(rebuilt) + " to key " + text(egress));
        }
    }
}

void NaiveMroute::handleDeletion(const TableKey& table) {
    world_.trace(8, "handleDeletion", " key=" + text(table));
    world_.trace(8, "handleDeletion", " deleting mrouteResponseMap");
    deleteAnswersOf(table.vrfId, seen_.mrouteAnswers, true);
    for (const RouteType type : routeTypes) {
        const std::string name = routeTypeName(source_, type);
        world_.trace(8, "handleDeletion", " deleting mrouteResponseMapByRoute[ " + name + " ]");
        deleteAnswersOf(table.vrfId, seen_.answersByType.at(name), false);
    }
}

void NaiveMroute::deleteAnswersOf(std::uint32_t vrfId, Answers& answers, bool isPublished) {
    const Answers before = answers;
    for (const auto& [request, egress] : before) {
        if (request.vrfId != vrfId)
            continue;
        world_.trace(8, "deleteMrouteResponsesWithVrfId", " removing resp=" + text(egress));
        answers.erase(request);
        if (isPublished)
            seen_.said.push_back(heard("mrouteResp", request));
    }
}

void NaiveMroute::watch(const RequestKey& request) {
    if (!seen_.watched.has(request.vrfId))
        seen_.watched.put(request.vrfId, Watched());
    Watched& watched = seen_.watched.at(request.vrfId);
    if (request.source == 0)
        addTo(watched.groupsWithAnySource, request.group, request);
    else if (request.group == 0)
        addTo(watched.sourcesWithAnyGroup, request.source, request);
    else
        addTo(watched.sourceGroups, {request.source, request.group}, request);
}

void NaiveMroute::unwatch(const RequestKey& request) {
    if (!seen_.watched.has(request.vrfId))
        return;
    Watched& watched = seen_.watched.at(request.vrfId);
    if (request.source == 0)
        removeFrom(watched.groupsWithAnySource, request.group, request);
    else if (request.group == 0)
        removeFrom(watched.sourcesWithAnyGroup, request.source, request);
    else
        removeFrom(watched.sourceGroups, {request.source, request.group}, request);
    if (watched.groupsWithAnySource.empty() && watched.sourcesWithAnyGroup.empty() &&
        watched.sourceGroups.empty())
        seen_.watched.erase(request.vrfId);
}

Names NaiveMroute::egressOf(const RequestKey& request, const TableKey& table) {
    world_.trace(8, "getEgressIntfsForMrouteKey", " reqKey=" + text(request));
    Names egress;
    if (!stores_.egressFromAllVrfs) {
        collectEgress(request, tableAt(table), egress);
        return egress;
    }
    for (const auto& [vrf, vrfId] : seen_.vrfIds)
        for (const RouteType type : routeTypes)
            collectEgress(request, tableAt({vrfId, routeTypeName(source_, type)}), egress);
    return egress;
}

const Table& NaiveMroute::tableAt(const TableKey& table) const {
    if (!seen_.routeMap.has(table))
        throw Fatal("no route table " + text(table));
    return stores_.tables.at(seen_.routeMap.at(table));
}

void NaiveMroute::collectEgress(const RequestKey& request, const Table& table, Names& egress) {
    world_.trace(8, resolving, " reqKey=" + text(request));
    if (request.source == 0 && request.group == 0)
        throw Fatal("a request for everything");
    const RouteKey wanted = {{request.source, 32}, {request.group, 32}};
    for (const RouteKey& route : tableOrder(table)) {
        const bool exact = route == wanted;
        const bool anySource = route.source.address == 0 && route.group.address == request.group;
        const bool sameSource = request.group == 0 && route.source.address == request.source;
        const bool sameGroup =
            request.group != 0 && request.source == 0 && route.group.address == request.group;
        if (!exact && !anySource && !sameSource && !sameGroup)
            continue;
        world_.detail(8, resolving, "Iterating oifs for routeKey=" + text(route));
        collectOifs(table, table.routes.at(route), egress);
        if (request.source != 0 && request.group != 0)
            return; // the first row that matches gives the whole answer
    }
}

void NaiveMroute::collectOifs(const Table& table, const Route& route, Names& egress) {
    for (const std::uint16_t index : route.oifs) {
        if (index > nullOif)
            throw Fatal("an index out of range");
        if (index == nullOif)
            break;
        const std::string intf = table.oifIndexIntf.get(index);
        world_.detail(9, resolving, "oifIndex: " + std::to_string(index) + ", oifIndexIntf: " + intf);
        egress.insert(intf);
    }
    for (const std::string& intf : route.intfs) {
        world_.detail(9, resolving, "oif intf: " + intf);
        egress.insert(intf);
    }
    egress.erase("");
}

} // namespace Model
