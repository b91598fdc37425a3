#include "tests/nat/NatFixture.h"

#include "state/Trace.h"

#include <algorithm>

namespace NatTest {

namespace {

std::string answerIn(const Handle<KestrelNat::NatMrouteResponseMap>& map, const Ask& ask) {
    const auto* found = map->mrouteRespCollection().find(request(ask));
    if (found == nullptr)
        return "none";
    std::string out = "{";
    for (const L3::IntfId intf : found->oif())
        out += (out == "{" ? "" : ", ") + intf.stringValue();
    return out + "}";
}

} // namespace

NatMrouteKey request(const Ask& ask) {
    return {.intf = L3::IntfId(ask.intf),
            .vrfId = ask.vrf,
            .vlanId = ask.vlan,
            .sourceIp = L3::IpAddr(ask.source),
            .groupIp = L3::IpAddr(ask.group),
            .type = ask.type};
}

IpGenRouteKey routeKey(std::string_view source) {
    return IpGenRouteKey::host(L3::IpAddr(source), request().groupIp);
}

NatMcastRouteKey tableKey(std::uint32_t vrf, Type type) {
    return {.vrfId = vrf, .routeName = KestrelNat::routeTypes()[type]};
}

OnChange::OnChange(const State::Publisher& publisher, Reaction given)
    : reaction(std::move(given))
    , publisher_(publisher) {
    publisher_.subscribe(this, &hear);
}
OnChange::~OnChange() {
    publisher_.unsubscribe(this, &hear);
}

void OnChange::hear(void* self, const Notification& change) {
    if (const Reaction current = static_cast<OnChange*>(self)->reaction)
        current(change);
}

void atEachChange(const State::Publisher& publisher, OnChange::Reaction& reaction) {
    publisher.subscribe(&reaction, [](void* given, const Notification& change) {
        (*static_cast<OnChange::Reaction*>(given))(change);
    });
}

Traced::Traced(std::string_view facility)
    : facility_(facility)
    , mark_(State::traceNext()) {}

Lines Traced::operator()() {
    Lines lines;
    for (const State::TraceRecord& record : State::traceRecordsSince(mark_))
        if (record.facility == facility_)
            lines.push_back(std::to_string(record.level) + " " + record.message);
    mark_ = State::traceNext();
    return lines;
}

std::size_t Traced::operator()(std::string_view part) {
    const Lines lines = (*this)();
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(part) != std::string::npos;
    }));
}

// Interfaces are numbered once for all tests, so that sets print in one order.
NatFixture::NatFixture() {
    for (const char* intf : {"Ethernet1", "Ethernet2", "Ethernet3", "Ethernet4"})
        L3::IntfId{std::string_view(intf)};
}

void NatFixture::start() {
    machine = KestrelNat::natMrouteSmFactory(requests, answers, status, routeMap, capability);
}

void NatFixture::tableIs(const NatMcastRouteKey& key, std::string_view name) {
    const std::string_view tableName = name.empty() ? std::string_view(key.routeName) : name;
    if (lumen) {
        lumenFibs[key] = makeHandle<LumenFib>(tableName);
        routeMap->mfibIs(key, lumenFibs[key]);
    } else {
        quillTables[key] = makeHandle<QuillTable>(tableName);
        routeMap->mrouteRouteIs(key, quillTables[key]);
    }
}

void NatFixture::tableDel(const NatMcastRouteKey& key) {
    routeMap->mfibDel(key);
    routeMap->mrouteRouteDel(key);
    lumenFibs.erase(key);
    quillTables.erase(key);
}

bool NatFixture::isWatched(const NatMcastRouteKey& key) const {
    return lumen ? machine->mfibAppCollection().has(key) : machine->mcastRouteCollection().has(key);
}

void NatFixture::routeIs(std::initializer_list<std::string_view> intfs, std::string_view source,
                         const NatMcastRouteKey& table) {
    if (!lumenFibs.contains(table) && !quillTables.contains(table))
        tableIs(table);
    L3::IntfSet set;
    Quill::Multicast::Fib::Route row;
    for (const std::string_view intf : intfs) {
        const L3::IntfId id(intf);
        set.insert(id);
        row.oifs.insert(static_cast<std::uint16_t>(100 + id.number()));
        if (!lumen)
            quillTables[table]->oifIndexIntfIs(static_cast<std::uint16_t>(100 + id.number()), id);
    }
    if (!lumen) {
        quillTables[table]->routeIs(routeKey(source), row);
    } else if (const Handle<LumenRoute> present = lumenFibs[table]->route(routeKey(source))) {
        present->intfIs(set);
        present->versionAdvance();
    } else {
        const auto made = makeHandle<LumenRoute>(routeKey(source));
        made->intfIs(set);
        lumenFibs[table]->routeIs(made);
    }
}

void NatFixture::routeDel(std::string_view source, const NatMcastRouteKey& table) {
    if (lumen)
        lumenFibs[table]->routeDel(routeKey(source));
    else
        quillTables[table]->routeDel(routeKey(source));
}

std::string NatFixture::answer(const Ask& ask) const {
    return answerIn(answers, ask);
}

std::string NatFixture::answerOf(Type type) const {
    return answerIn(machine->mrouteResponseMapByRoute(KestrelNat::routeTypes()[type]), {});
}

std::size_t NatFixture::requesters() const {
    return machine->vrfIdSourceAndGroupToIntf(KestrelNat::VrfIdMrouteSourceAndGroup::of(request()))
        .iv()
        .size();
}

} // namespace NatTest
