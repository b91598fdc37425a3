#include "tests/model/NaiveMroute.h"

namespace Model {

namespace {

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

void deleteAnswersOf(Answers& answers, std::uint32_t vrfId) {
    const Answers before = answers;
    for (const auto& [request, egress] : before)
        if (request.vrfId == vrfId)
            answers.erase(request);
}

} // namespace

NaiveMroute::NaiveMroute(Source source, const Stores& stores, Observation& seen)
    : source_(source)
    , stores_(stores)
    , seen_(seen) {}

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
    handleWholeTable(table);
    std::set<RouteKey> watchedRoutes;
    if (source_ == Source::quill)
        handleEveryRow(table); // the second pass that a new watcher of a route table makes
    else
        for (const RouteKey& route : tableOrder(tableAt(table)))
            watchedRoutes.insert(route);
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

void NaiveMroute::oifRowChanged(const TableName& name) {
    const auto tables = seen_.routeMap;
    for (const auto& [table, itsName] : tables)
        if (itsName == name && seen_.watchers.has(table))
            handleEveryRow(table);
}

void NaiveMroute::versionChanged(const TableName& name, const RouteKey& route) {
    const auto tables = seen_.routeMap;
    for (const auto& [table, itsName] : tables)
        if (itsName == name && seen_.watchers.has(table) && seen_.watchers.at(table).contains(route))
            handleRoute(route, table);
}

void NaiveMroute::handleAllRequests() {
    const OrderedSet<RequestKey> requests = stores_.mrouteRequests;
    for (const RequestKey& request : requests)
        handleRequest(request);
    seen_.mrouteReady = true;
}

void NaiveMroute::handleRequest(const RequestKey& request) {
    if (request.intf.empty() || request.vlan == 0)
        throw Fatal("a request names an interface and a VLAN");
    const bool added = stores_.mrouteRequests.has(request);
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
    if (!seen_.routeMap.has(table))
        return;
    if (added)
        updateResponse(egressOf(request, table), request, table.type, false);
    else
        updateResponse({}, request, table.type, true);
}

void NaiveMroute::updateResponse(const Names& egress, const RequestKey& request, const std::string& type,
                                 bool removeEmpty) {
    const std::string plain = routeTypeName(source_, RouteType::plain);
    const std::string otherType = type == plain ? routeTypeName(source_, RouteType::sparse) : plain;
    Answers& own = seen_.answersByType.at(type);
    Names whole = seen_.answersByType.at(otherType).get(request);
    if (!egress.empty()) {
        own.put(request, egress);
        whole.insert(egress.begin(), egress.end());
        seen_.mrouteAnswers.put(request, whole);
        return;
    }
    own.erase(request);
    if (whole.empty() && removeEmpty)
        seen_.mrouteAnswers.erase(request);
    else
        seen_.mrouteAnswers.put(request, whole);
}

void NaiveMroute::handleWholeTable(const TableKey& table) {
    handleAllRequests();
    handleEveryRow(table);
}

void NaiveMroute::handleEveryRow(const TableKey& table) {
    for (const RouteKey& route : tableOrder(tableAt(table)))
        handleRoute(route, table);
}

void NaiveMroute::handleRoute(const RouteKey& route, const TableKey& table) {
    const Table& rows = tableAt(table);
    if (source_ == Source::lumen && rows.routes.has(route) && rows.routes.at(route).ready != 1)
        return;
    if (!seen_.watched.has(table.vrfId))
        seen_.watched.put(table.vrfId, Watched()); // stays, though nothing is in it
    const Address source = route.source.address;
    const Address group = route.group.address;
    if (!matches(seen_.watched.at(table.vrfId), source, group))
        return;
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
        if (!seen_.mrouteRequesters.has(flow))
            throw Fatal("a matched flow has no requesters");
        const OrderedSet<Requester> requesters = seen_.mrouteRequesters.at(flow);
        for (const Requester& requester : requesters) {
            const RequestKey rebuilt = {requester.intf, flow.vrfId, requester.vlan,
                                        flow.source,    flow.group, 0};
            const TableName& name = seen_.routeMap.at(table);
            updateResponse(egressOf(rebuilt, table), rebuilt, routeTypeName(source_, name.type), true);
        }
    }
}

void NaiveMroute::handleDeletion(const TableKey& table) {
    deleteAnswersOf(seen_.mrouteAnswers, table.vrfId);
    for (const RouteType type : routeTypes)
        deleteAnswersOf(seen_.answersByType.at(routeTypeName(source_, type)), table.vrfId);
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

Names NaiveMroute::egressOf(const RequestKey& request, const TableKey& table) const {
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

void NaiveMroute::collectEgress(const RequestKey& request, const Table& table, Names& egress) const {
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
        collectOifs(table, table.routes.at(route), egress);
        if (request.source != 0 && request.group != 0)
            return; // the first row that matches gives the whole answer
    }
}

void NaiveMroute::collectOifs(const Table& table, const Route& route, Names& egress) const {
    for (const std::uint16_t index : route.oifs)
        egress.insert(table.oifIndexIntf.get(index));
    egress.insert(route.intfs.begin(), route.intfs.end());
    egress.erase("");
}

} // namespace Model
