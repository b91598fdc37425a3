#include "tests/model/ProductUnderTest.h"

#include "KestrelNat/KestrelNatMulticastMounter/RoutePaths.h"
#include "KestrelNat/KestrelNatMulticastSm/McastMfibSm.h"
#include "KestrelNat/KestrelNatMulticastSm/McastRouteSm.h"
#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"

namespace Model {

namespace {

using namespace KestrelNat;
using Lumen::Multicast::Fib::MfibVrfName;
using Routing::Hardware::RouteStatus;
using Routing::Hardware::VrfStatus;
using Routing::Multicast::Fib::VrfEnabledStatus;
using State::Handle;
using State::makeHandle;
using LumenRoute = Lumen::Multicast::Fib::Route;
using QuillStatus = Quill::Multicast::Fib::Status;
using Groups = KestrelCommon::MrouteGroup::MgroupColl;
using GroupConfig = KestrelCommon::MrouteGroup::MrouteColl;
using ProductRouteKey = Routing::Multicast::Fib::IpGenRouteKey;

const bool lumen = toggleKestrelNatMfibLumenEnabled();

// ---- into the product's types

ProductRouteKey product(const RouteKey& key) {
    const auto prefix = [](const Prefix& plain) {
        return L3::IpGenPrefix(L3::IpAddr(plain.address), plain.length);
    };
    return {prefix(key.source), prefix(key.group)};
}

NatMrouteKey product(const RequestKey& key) {
    return {.intf = L3::IntfId(key.intf),
            .vrfId = key.vrfId,
            .vlanId = key.vlan,
            .sourceIp = L3::IpAddr(key.source),
            .groupIp = L3::IpAddr(key.group),
            .type = NatRequestType{key.type}};
}

KestrelL3::IpMcastKey product(const GroupKey& key) {
    return {.vrfId = key.vrfId,
            .source = L3::IpAddr(key.source),
            .group = L3::IpAddr(key.group),
            .vlanId = key.vlan};
}

L3::IntfSet product(const Names& names) {
    L3::IntfSet set;
    for (const std::string& name : names)
        set.insert(L3::IntfId(name));
    return set;
}

const char* lumenType(RouteType type) {
    return type == RouteType::plain ? "user" : SPARSE_MODE;
}
const char* quillType(RouteType type) {
    return type == RouteType::plain ? STATIC_MODE : SPARSE_MODE;
}
std::string lumenPath(RouteType type) {
    return Lumen::Multicast::Fib::StatusByVrf::mountPath(L3::AddressFamily::ipv4, lumenType(type));
}

// ---- and back

RequestKey plain(const NatMrouteKey& key) {
    return {.intf = key.intf.stringValue(),
            .vrfId = key.vrfId.value(),
            .vlan = key.vlanId,
            .source = key.sourceIp.value(),
            .group = key.groupIp.value(),
            .type = static_cast<std::uint8_t>(key.type)};
}

RouteKey plain(const ProductRouteKey& key) {
    return {.source = {.address = key.source.ipv4().value(), .length = key.source.length()},
            .group = {.address = key.group.ipv4().value(), .length = key.group.length()}};
}

TableKey plain(const NatMcastRouteKey& key) {
    return {.vrfId = key.vrfId.value(), .type = key.routeName};
}

GroupKey plain(const KestrelL3::IpMcastKey& key) {
    return {.vrfId = key.vrfId,
            .source = key.source.ipv4().value(),
            .group = key.group.ipv4().value(),
            .vlan = key.vlanId};
}

Answers plain(const NatMrouteResponseMap& map) {
    Answers answers;
    for (const auto& [key, oifs] : map.mrouteResp()) {
        Names names;
        for (const L3::IntfId intf : oifs)
            names.insert(intf.stringValue());
        answers.put(plain(key), names);
    }
    return answers;
}

template <class Walk>
Requesters plainRequesters(Walk&& walk) {
    Requesters requesters;
    for (const auto& [flow, set] : walk) {
        OrderedSet<Requester> plainSet;
        for (const MrouteIntfAndVlan& requester : set.elements())
            plainSet.put({.intf = requester.intf.stringValue(), .vlan = requester.vlanId});
        requesters.put({.vrfId = flow.vrfId.value(),
                        .source = flow.sg.sourceIp.value(),
                        .group = flow.sg.groupIp.value()},
                       plainSet);
    }
    return requesters;
}

OrderedSet<RequestKey> plain(const NatMrouteMatcher::MrouteKeySet& set) {
    OrderedSet<RequestKey> keys;
    for (const NatMrouteKey& key : set.elements())
        keys.put(plain(key));
    return keys;
}

Watched plain(const NatMrouteMatcher& matcher) {
    Watched watched;
    for (const auto& [group, keys] : matcher.groupsWithAnySource())
        watched.groupsWithAnySource.put(group.value(), plain(keys));
    for (const auto& [source, keys] : matcher.sourcesWithAnyGroup())
        watched.sourcesWithAnyGroup.put(source.value(), plain(keys));
    for (const auto& [sg, keys] : matcher.sourceGroups())
        watched.sourceGroups.put({sg.sourceIp.value(), sg.groupIp.value()}, plain(keys));
    return watched;
}

} // namespace

Source productSource() {
    return lumen ? Source::lumen : Source::quill;
}

ProductUnderTest::ProductUnderTest()
    : database_(makeHandle<State::Store>("the state database"))
    , tables_(makeHandle<State::Store>("the table store"))
    , entities_(makeHandle<State::Store>("the entity store"))
    , shmem_(makeHandle<State::ShmEntityManager>(tables_, entities_)) {
    database_->entityIs("hardware/kestrel/nat/capability/config", "KestrelNat::CapabilityConfig");
    database_->entityIs("routing/hardware/route/status", "Routing::Hardware::RouteStatus");
    database_->entityIs("routing/multicast/fibenabled/status", "Routing::Multicast::Fib::VrfEnabledStatus");
    database_->entityIs("api/mroute/req", "KestrelNat::NatMrouteRequestSet");
    database_->entityIs("api/mroute/resp", "KestrelNat::NatMrouteResponseMap");
    database_->entityIs("api/mgroup/req", "KestrelNat::NatMgroupRequestSet");
    database_->entityIs("api/mgroup/resp", "KestrelNat::NatMgroupResponseMap");
    database_->entityIs("api/multicastSmStatus", "KestrelNat::MulticastSmStatus");
    tables_->entityIs("l3/mroutegroup/status", "KestrelCommon::MrouteGroup::MgroupColl");
    for (const RouteType type : routeTypes) {
        tables_->entityIs(formatMulticastRoutePath("default", quillType(type)),
                          "Quill::Multicast::Fib::Status");
        if (lumen)
            entities_->entityIs(lumenPath(type), "Lumen::Multicast::Fib::StatusByVrf");
    }
}

void ProductUnderTest::start() {
    const auto em = makeHandle<State::EntityManager>(database_);
    mounter_ = makeHandle<NatMulticastMounter>("model");
    mounter_->contextIs(em, shmem_);
    mounter_->doInit();
    mounter_->doMountsComplete(em->performMounts(*mounter_), em);
}

void ProductUnderTest::stop() {
    mounter_.reset();
}

void ProductUnderTest::vrfStatusIs(const std::string& vrf, std::uint32_t vrfId) {
    if (const auto present = inDatabase<RouteStatus>("routing/hardware/route/status")->vrfStatus(vrf))
        present->vrfIdIs(vrfId);
    else
        vrfStatusReplaced(vrf, vrfId);
}

void ProductUnderTest::vrfStatusReplaced(const std::string& vrf, std::uint32_t vrfId) {
    vrfs_.insert(vrf);
    const auto status = makeHandle<VrfStatus>(L3::VrfName(vrf));
    status->vrfIdIs(vrfId);
    inDatabase<RouteStatus>("routing/hardware/route/status")->vrfStatusIs(vrf, status);
}

void ProductUnderTest::vrfStatusDel(const std::string& vrf) {
    inDatabase<RouteStatus>("routing/hardware/route/status")->vrfStatusDel(vrf);
}

void ProductUnderTest::vrfEnabledIs(const std::string& vrf, bool enabled) {
    vrfs_.insert(vrf);
    inDatabase<VrfEnabledStatus>("routing/multicast/fibenabled/status")->vrfEnabledIs(vrf, enabled);
}

void ProductUnderTest::vrfEnabledDel(const std::string& vrf) {
    inDatabase<VrfEnabledStatus>("routing/multicast/fibenabled/status")->vrfEnabledDel(vrf);
}

Handle<QuillStatus> ProductUnderTest::quillTable(const TableName& table) const {
    return State::handleCast<QuillStatus>(
        tables_->entity(formatMulticastRoutePath(table.vrf, quillType(table.type))));
}

Handle<Lumen::Multicast::Fib::StatusByVrf> ProductUnderTest::lumenFibs(RouteType type) const {
    return State::handleCast<Lumen::Multicast::Fib::StatusByVrf>(entities_->entity(lumenPath(type)));
}

Handle<Lumen::Multicast::Fib::Status> ProductUnderTest::lumenFib(const TableName& table) const {
    return lumenFibs(table.type)->status(MfibVrfName(L3::VrfName(table.vrf)));
}

void ProductUnderTest::tableIs(const TableName& table) {
    vrfs_.insert(table.vrf);
    if (!lumen) {
        tables_->entityIs(formatMulticastRoutePath(table.vrf, quillType(table.type)),
                          "Quill::Multicast::Fib::Status");
    } else if (!lumenFib(table)) {
        lumenFibs(table.type)
            ->statusIs(MfibVrfName(L3::VrfName(table.vrf)),
                       makeHandle<Lumen::Multicast::Fib::Status>(lumenType(table.type)));
    }
}

void ProductUnderTest::tableDel(const TableName& table) {
    lumenFibs(table.type)->statusDel(MfibVrfName(L3::VrfName(table.vrf)));
}

void ProductUnderTest::quillRouteIs(const TableName& table, const RouteKey& key,
                                    const std::vector<std::uint16_t>& oifs) {
    Quill::Multicast::Fib::Route route;
    for (const std::uint16_t index : oifs)
        route.oifs.insert(index);
    quillTable(table)->routeIs(product(key), route);
}

void ProductUnderTest::oifIndexIntfIs(const TableName& table, std::uint16_t index, const std::string& intf) {
    quillTable(table)->oifIndexIntfIs(index, L3::IntfId(intf));
}

void ProductUnderTest::oifIndexIntfDel(const TableName& table, std::uint16_t index) {
    quillTable(table)->oifIndexIntfDel(index);
}

void ProductUnderTest::lumenRouteIs(const TableName& table, const RouteKey& key, const Names& intfs,
                                    std::uint32_t ready) {
    const auto route = lumenFib(table)->route(product(key));
    if (!route) {
        lumenRouteReplaced(table, key, intfs, ready);
        return;
    }
    const bool differs = route->intf() != product(intfs) || route->ready() != ready;
    lumenRouteUntold(table, key, intfs, ready);
    if (differs)
        route->versionAdvance();
}

void ProductUnderTest::lumenRouteUntold(const TableName& table, const RouteKey& key, const Names& intfs,
                                        std::uint32_t ready) {
    const auto route = lumenFib(table)->route(product(key));
    route->intfIs(product(intfs));
    route->readyIs(ready);
}

void ProductUnderTest::lumenRouteReplaced(const TableName& table, const RouteKey& key, const Names& intfs,
                                          std::uint32_t ready) {
    const auto route = makeHandle<LumenRoute>(product(key));
    route->intfIs(product(intfs));
    route->readyIs(ready);
    lumenFib(table)->routeIs(route);
}

void ProductUnderTest::routeDel(const TableName& table, const RouteKey& key) {
    lumen ? lumenFib(table)->routeDel(product(key)) : quillTable(table)->routeDel(product(key));
}

void ProductUnderTest::mrouteRequestIs(const RequestKey& key) {
    inDatabase<NatMrouteRequestSet>("api/mroute/req")->mrouteReqIs(product(key));
}

void ProductUnderTest::mrouteRequestDel(const RequestKey& key) {
    inDatabase<NatMrouteRequestSet>("api/mroute/req")->mrouteReqDel(product(key));
}

void ProductUnderTest::egressFromAllVrfsIs(bool all) {
    inDatabase<CapabilityConfig>("hardware/kestrel/nat/capability/config")->egressFromAllVrfsIs(all);
}

void ProductUnderTest::mgroupRequestIs(const RequestKey& key) {
    inDatabase<NatMgroupRequestSet>("api/mgroup/req")->mgroupReqIs(product(key));
}

void ProductUnderTest::mgroupRequestDel(const RequestKey& key) {
    inDatabase<NatMgroupRequestSet>("api/mgroup/req")->mgroupReqDel(product(key));
}

void ProductUnderTest::groupStatusIs(const GroupKey& key, std::uint32_t groupId) {
    State::handleCast<Groups>(tables_->entity("l3/mroutegroup/status"))
        ->mgroupsIs(product(key), {.groupId = groupId});
}

void ProductUnderTest::groupStatusDel(const GroupKey& key) {
    State::handleCast<Groups>(tables_->entity("l3/mroutegroup/status"))->mgroupsDel(product(key));
}

// Which of the tables or FIBs that were made so far `table` is.
TableName ProductUnderTest::nameOf(const void* table) const {
    for (const std::string& vrf : vrfs_) {
        for (const RouteType type : routeTypes) {
            TableName name{.vrf = vrf, .type = type};
            const void* candidate =
                lumen ? static_cast<const void*>(lumenFib(name).get()) : quillTable(name).get();
            if (candidate == table)
                return name;
        }
    }
    return {};
}

const Observation& ProductUnderTest::observe() {
    seen_ = Observation();
    observePublished();
    if (mounter_)
        observePrivate();
    return seen_;
}

void ProductUnderTest::observePublished() {
    seen_.mrouteAnswers = plain(*inDatabase<NatMrouteResponseMap>("api/mroute/resp"));
    for (const auto& [key, id] : inDatabase<NatMgroupResponseMap>("api/mgroup/resp")->mgroupId())
        seen_.groupIds.put(plain(key), id);
    if (const auto config = State::handleCast<GroupConfig>(tables_->entity("l3/mroutegroup/config"))) {
        config->mroutes([&](const auto& item) {
            seen_.groupConfig.put(plain(item.key()));
            return true;
        });
    }
    const auto status = inDatabase<MulticastSmStatus>("api/multicastSmStatus");
    seen_.mrouteReady = status->mrouteSmReady();
    seen_.mgroupReady = status->mgroupSmReady();
    const auto see = [&](const std::string& path) {
        if (shmem_->mounted(path))
            seen_.mounted.insert(path);
    };
    for (const RouteType type : routeTypes) {
        see(lumenPath(type));
        for (const std::string& vrf : vrfs_)
            see(formatMulticastRoutePath(vrf, quillType(type)));
    }
}

void ProductUnderTest::observePrivate() {
    const NatMrouteRouteMap& routeMap = *mounter_->mrouteRouteMap();
    for (const auto& [name, id] : routeMap.vrfNameToId())
        seen_.vrfIds.put(name.stringValue(), id.value());
    for (const auto& [key, table] : routeMap.mrouteRoute())
        seen_.routeMap.put(plain(key), nameOf(table.get()));
    for (const auto& [key, fib] : routeMap.mfib())
        seen_.routeMap.put(plain(key), nameOf(fib.get()));
    const NatMrouteSm& mroute = *mounter_->mrouteSm();
    for (const auto& [type, map] : mroute.mrouteResponseMapByRoute())
        seen_.answersByType.put(type, plain(*map));
    seen_.mrouteRequesters = plainRequesters(mroute.vrfIdSourceAndGroupToIntf());
    for (const auto& [vrfId, matcher] : mroute.watchedMroutes())
        seen_.watched.put(vrfId.value(), plain(*matcher));
    for (const auto& [key, watcher] : mroute.mcastRouteCollection().walk())
        seen_.watchers.put(plain(key), {});
    for (const auto& [key, watcher] : mroute.mfibAppCollection().walk()) {
        std::set<RouteKey> routes;
        for (const auto& nested : watcher->lumenRoute())
            routes.insert(plain(nested->routeKey()));
        seen_.watchers.put(plain(key), routes);
    }
    seen_.mgroupRequesters = plainRequesters(mounter_->mgroupSm()->vrfIdSourceAndGroupToIntf());
}

} // namespace Model
