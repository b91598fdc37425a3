// What can be seen of the plug-in under test: its maps, published and private, and what it says.
#include "tests/model/ProductUnderTest.h"

#include "KestrelNat/KestrelNatMulticastSm/McastMfibSm.h"
#include "KestrelNat/KestrelNatMulticastSm/McastRouteSm.h"

namespace Model {

namespace {

using namespace KestrelNat;
using State::Notification;
using GroupConfig = KestrelCommon::MrouteGroup::MrouteColl;
using ProductRouteKey = Routing::Multicast::Fib::IpGenRouteKey;

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

Names plain(const NatMrouteOifSet& oifs) {
    Names names;
    for (const L3::IntfId intf : oifs.oif())
        names.insert(intf.stringValue());
    return names;
}

Answers plain(const NatMrouteResponseMap& map) {
    Answers answers;
    for (const auto& [key, oifs] : map.mrouteResp())
        answers.put(plain(key), plain(oifs));
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

// ---- what it says: each subscription hears its key as it stands now

void ProductUnderTest::listen() {
    for (const char* facility : {"KestrelNatMulticastMounter", "KestrelNatMulticastSm"})
        State::traceLevelIs(facility, 9);
    State::traceSinkIs(
        [](void* self, const State::TraceRecord& record) {
            static_cast<ProductUnderTest*>(self)->seen_.said.push_back(
                traceLine(record.level, std::string(record.function), record.message));
        },
        this);
    inDatabase<NatMrouteResponseMap>()->subscribe(this, &dispatch<&ProductUnderTest::hearMrouteResponse>);
    inDatabase<NatMgroupResponseMap>()->subscribe(this, &dispatch<&ProductUnderTest::hearMgroupResponse>);
    inDatabase<MulticastSmStatus>()->subscribe(this, &dispatch<&ProductUnderTest::hearReady>);
}

// What the plug-in makes: the route map, anew each time, and the table of the group configuration, once.
void ProductUnderTest::listenToPlugIn() {
    mounter_->mrouteRouteMapIs()->subscribe(this, &dispatch<&ProductUnderTest::hearRouteMap>);
    if (groupConfig_)
        return;
    groupConfig_ = State::handleCast<GroupConfig>(tables_->entity(GroupConfig::path));
    groupConfig_->subscribe(this, &dispatch<&ProductUnderTest::hearGroupConfig>);
}

void ProductUnderTest::hearMrouteResponse(const Notification& change) {
    const auto& key = change.keyAs<NatMrouteKey>();
    const auto* oifs = inDatabase<NatMrouteResponseMap>()->mrouteRespCollection().find(key);
    say("mrouteResp", plain(key), oifs == nullptr ? std::nullopt : std::optional(plain(*oifs)));
}

void ProductUnderTest::hearMgroupResponse(const Notification& change) {
    const auto& key = change.keyAs<NatMrouteKey>();
    const std::uint32_t* id = inDatabase<NatMgroupResponseMap>()->mgroupIdCollection().find(key);
    say("mgroupId", plain(key), id == nullptr ? std::nullopt : std::optional(*id));
}

void ProductUnderTest::hearReady(const Notification& change) {
    const bool isMroute = change.attribute == MulticastSmStatus::mrouteSmReadyAttribute;
    const auto status = inDatabase<MulticastSmStatus>();
    say("ready", std::string(isMroute ? "mroute" : "mgroup"),
        std::optional(isMroute ? status->mrouteSmReady() : status->mgroupSmReady()));
}

void ProductUnderTest::hearRouteMap(const Notification& change) {
    const NatMrouteRouteMap& map = *mounter_->mrouteRouteMap();
    if (change.attribute == NatMrouteRouteMap::vrfNameToIdAttribute) {
        const auto& vrf = change.keyAs<L3::VrfName>();
        const auto* id = map.vrfNameToIdCollection().find(vrf);
        say("vrfNameToId", vrf.stringValue(), id == nullptr ? std::nullopt : std::optional(id->value()));
        return;
    }
    const bool isQuill = change.attribute == NatMrouteRouteMap::mrouteRouteAttribute;
    const auto& key = change.keyAs<NatMcastRouteKey>();
    const void* table = isQuill ? static_cast<const void*>(map.mrouteRoute(key).get()) : map.mfib(key).get();
    say(isQuill ? "mrouteRoute" : "mfib", plain(key),
        table == nullptr ? std::nullopt : std::optional(nameOf(table)));
}

// The chip answers from inside the write.
void ProductUnderTest::hearGroupConfig(const Notification& change) {
    const GroupKey key = plain(change.keyAs<KestrelL3::IpMcastKey>());
    const bool isThere = groupConfig_->mroutesCollection().has(change.keyAs<KestrelL3::IpMcastKey>());
    say("mroutes", key, isThere ? std::optional(true) : std::nullopt);
    if (hasChip_)
        groupStatus({key, isThere ? std::optional(++chipGroups_) : std::nullopt});
}

// ---- what it holds

// Which of the tables or FIBs that were made so far `table` is.
TableName ProductUnderTest::nameOf(const void* table) const {
    for (const std::string& vrf : vrfs_) {
        for (const RouteType type : routeTypes) {
            TableName name{.vrf = vrf, .type = type};
            const void* candidate = productSource() == Source::lumen
                                        ? static_cast<const void*>(lumenFib(name).get())
                                        : quillTable(name).get();
            if (candidate == table)
                return name;
        }
    }
    return {};
}

const Observation& ProductUnderTest::observe() {
    std::vector<std::string> said = std::move(seen_.said);
    seen_ = Observation();
    seen_.said = std::move(said);
    observePublished();
    if (mounter_)
        observePrivate();
    return seen_;
}

void ProductUnderTest::observePublished() {
    seen_.mrouteAnswers = plain(*inDatabase<NatMrouteResponseMap>());
    for (const auto& [key, id] : inDatabase<NatMgroupResponseMap>()->mgroupId())
        seen_.groupIds.put(plain(key), id);
    if (groupConfig_) {
        groupConfig_->mroutes([&](const auto& item) {
            seen_.groupConfig.put(plain(item.key()));
            return true;
        });
    }
    const auto status = inDatabase<MulticastSmStatus>();
    seen_.mrouteReady = status->mrouteSmReady();
    seen_.mgroupReady = status->mgroupSmReady();
    for (const std::string& vrf : vrfs_) {
        for (const RouteType type : routeTypes) {
            for (const Source source : {Source::quill, Source::lumen}) {
                const std::string path = mountPath(source, {vrf, type});
                if (shmem_->mounted(path))
                    seen_.mounted.insert(path);
            }
        }
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
