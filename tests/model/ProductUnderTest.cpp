#include "tests/model/ProductUnderTest.h"

#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"

namespace Model {

namespace {

using namespace KestrelNat;
using Lumen::Multicast::Fib::MfibVrfName;
using Routing::Hardware::RouteStatus;
using Routing::Multicast::Fib::VrfEnabledStatus;
using State::Handle;
using State::makeHandle;
using QuillTable = Quill::Multicast::Fib::Status;
using ProductRouteKey = Routing::Multicast::Fib::IpGenRouteKey;

const bool lumen = toggleKestrelNatMfibLumenEnabled();

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

// All VRFs share it.
std::string lumenPath(RouteType type) {
    return mountPath(Source::lumen, {"", type});
}

// In the order in which sets of them print, by number and by name alike.
constexpr const char* interfaceNames[] = {"Ethernet1", "Ethernet2",     "Ethernet3",
                                          "Ethernet7", "Port-Channel9", "Vlan10"};

} // namespace

Source productSource() {
    return lumen ? Source::lumen : Source::quill;
}

ProductUnderTest::ProductUnderTest()
    : database_(makeHandle<State::Store>("the state database"))
    , tables_(makeHandle<State::Store>("the table store"))
    , entities_(makeHandle<State::Store>("the entity store"))
    , shmem_(makeHandle<State::ShmEntityManager>(tables_, entities_)) {
    for (const char* name : interfaceNames)
        L3::IntfId{std::string_view(name)};
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
        tables_->entityIs(mountPath(Source::quill, {"default", type}), "Quill::Multicast::Fib::Status");
        if (lumen)
            entities_->entityIs(lumenPath(type), "Lumen::Multicast::Fib::StatusByVrf");
    }
    listen();
}

ProductUnderTest::~ProductUnderTest() {
    stop();
    State::traceSinkIs(nullptr, nullptr);
}

void ProductUnderTest::apply(const Operation& operation) {
    seen_.said.clear();
    std::visit(Each{
                   [&](const PlugIn& op) { op.isLoaded ? start() : stop(); },
                   [&](const VrfStatus& op) { vrfStatus(op); },
                   [&](const VrfEnabled& op) {
                       vrfs_.insert(op.vrf);
                       const auto status = inDatabase<VrfEnabledStatus>();
                       op.isOn ? status->vrfEnabledIs(op.vrf, *op.isOn) : void(status->vrfEnabledDel(op.vrf));
                   },
                   [&](const TableIs& op) { table(op); },
                   [&](const QuillRoute& op) { quillRoute(op); },
                   [&](const OifRow& op) {
                       const auto table = quillTable(op.table);
                       op.intf ? table->oifIndexIntfIs(op.index, L3::IntfId(*op.intf))
                               : void(table->oifIndexIntfDel(op.index));
                   },
                   [&](const LumenRoute& op) { lumenRoute(op); },
                   [&](const Request& op) { request(op); },
                   [&](const EgressFromAllVrfs& op) {
                       inDatabase<CapabilityConfig>()->egressFromAllVrfsIs(op.isOn);
                   },
                   [&](const GroupStatus& op) { groupStatus(op); },
                   [&](const Chip& op) { hasChip_ = op.isThere; },
               },
               operation);
}

void ProductUnderTest::start() {
    const auto em = makeHandle<State::EntityManager>(database_);
    mounter_ = makeHandle<NatMulticastMounter>("model");
    mounter_->contextIs(em, shmem_);
    mounter_->doInit();
    listenToPlugIn();
    mounter_->doMountsComplete(em->performMounts(*mounter_), em);
}

void ProductUnderTest::stop() {
    mounter_.reset();
}

void ProductUnderTest::vrfStatus(const VrfStatus& op) {
    vrfs_.insert(op.vrf);
    const auto entries = inDatabase<RouteStatus>();
    const auto present = entries->vrfStatus(op.vrf);
    if (!op.vrfId) {
        entries->vrfStatusDel(op.vrf);
    } else if (present && !op.isAnotherEntry) {
        present->vrfIdIs(*op.vrfId);
    } else {
        const auto made = makeHandle<Routing::Hardware::VrfStatus>(L3::VrfName(op.vrf));
        made->vrfIdIs(*op.vrfId);
        entries->vrfStatusIs(op.vrf, made);
    }
}

Handle<QuillTable> ProductUnderTest::quillTable(const TableName& table) const {
    return State::handleCast<QuillTable>(tables_->entity(mountPath(Source::quill, table)));
}

Handle<Lumen::Multicast::Fib::StatusByVrf> ProductUnderTest::lumenFibs(RouteType type) const {
    return State::handleCast<Lumen::Multicast::Fib::StatusByVrf>(entities_->entity(lumenPath(type)));
}

Handle<Lumen::Multicast::Fib::Status> ProductUnderTest::lumenFib(const TableName& table) const {
    return lumenFibs(table.type)->status(MfibVrfName(L3::VrfName(table.vrf)));
}

void ProductUnderTest::table(const TableIs& op) {
    const auto& [name, isThere] = op;
    vrfs_.insert(name.vrf);
    const MfibVrfName fibName{L3::VrfName(name.vrf)};
    if (!lumen)
        tables_->entityIs(mountPath(Source::quill, name), "Quill::Multicast::Fib::Status");
    else if (!isThere)
        lumenFibs(name.type)->statusDel(fibName);
    else if (!lumenFib(name))
        lumenFibs(name.type)->statusIs(
            fibName, makeHandle<Lumen::Multicast::Fib::Status>(routeTypeName(Source::lumen, name.type)));
}

void ProductUnderTest::quillRoute(const QuillRoute& op) {
    if (!op.oifs) {
        quillTable(op.table)->routeDel(product(op.key));
        return;
    }
    Quill::Multicast::Fib::Route row;
    for (const std::uint16_t index : *op.oifs)
        row.oifs.insert(index);
    quillTable(op.table)->routeIs(product(op.key), row);
}

void ProductUnderTest::lumenRoute(const LumenRoute& op) {
    const auto fib = lumenFib(op.table);
    const ProductRouteKey key = product(op.key);
    if (!op.intfs) {
        fib->routeDel(key);
        return;
    }
    const L3::IntfSet intfs = product(*op.intfs);
    auto route = fib->route(key);
    const bool isInserted = !route || op.writing == Writing::replaced;
    const bool isChange = isInserted || route->intf() != intfs || route->ready() != op.ready;
    if (isInserted)
        route = makeHandle<Lumen::Multicast::Fib::Route>(key);
    route->intfIs(intfs);
    route->readyIs(op.ready);
    if (isInserted)
        fib->routeIs(route);
    else if (isChange && op.writing == Writing::told)
        route->versionAdvance();
}

void ProductUnderTest::request(const Request& op) {
    const NatMrouteKey key = product(op.key);
    if (op.service == Service::mroute) {
        const auto requests = inDatabase<NatMrouteRequestSet>();
        op.isThere ? requests->mrouteReqIs(key) : void(requests->mrouteReqDel(key));
    } else {
        const auto requests = inDatabase<NatMgroupRequestSet>();
        op.isThere ? requests->mgroupReqIs(key) : void(requests->mgroupReqDel(key));
    }
}

void ProductUnderTest::groupStatus(const GroupStatus& op) {
    using KestrelCommon::MrouteGroup::MgroupColl;
    const auto groups = State::handleCast<MgroupColl>(tables_->entity(MgroupColl::path));
    op.groupId ? groups->mgroupsIs(product(op.key), {.groupId = *op.groupId})
               : void(groups->mgroupsDel(product(op.key)));
}

} // namespace Model
