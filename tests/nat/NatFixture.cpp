#include "tests/nat/NatFixture.h"

#include "state/Trace.h"

#include <algorithm>

namespace NatTest {

namespace {

std::string text(const L3::IntfSet& intfs) {
    std::string out = "{";
    for (const L3::IntfId intf : intfs)
        out += (out == "{" ? "" : ", ") + intf.stringValue();
    return out + "}";
}

L3::IpGenPrefix prefix(std::string_view given) {
    return given.find('/') == std::string_view::npos ? L3::IpGenPrefix::host(L3::IpAddr(given))
                                                     : L3::IpGenPrefix::fromString(given);
}

std::string answerIn(const Handle<KestrelNat::NatMrouteResponseMap>& map, const Ask& ask) {
    const auto* found = map->mrouteRespCollection().find(request(ask));
    return found == nullptr ? "none" : text(found->oif());
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

IpGenRouteKey routeKey(std::string_view source, std::string_view group) {
    return {prefix(source), prefix(group)};
}

NatMcastRouteKey tableKey(std::uint32_t vrf, Type type) {
    return {.vrfId = vrf, .routeName = KestrelNat::routeTypes()[type]};
}

AnswerListener::AnswerListener(Handle<KestrelNat::NatMrouteResponseMap> answers)
    : answers_(std::move(answers)) {
    answers_->subscribe(this, &hear);
}
AnswerListener::~AnswerListener() {
    answers_->unsubscribe(this, &hear);
}

void AnswerListener::hear(void* self, const State::Notification& change) {
    auto& listener = *static_cast<AnswerListener*>(self);
    const NatMrouteKey key = change.keyAs<NatMrouteKey>();
    const auto* found = listener.answers_->mrouteRespCollection().find(key);
    listener.heard.push_back(key.intf.stringValue() + " " + key.sourceIp.stringValue() + " " +
                             key.groupIp.stringValue() + " " +
                             (found == nullptr ? "gone" : text(found->oif())));
    if (listener.reaction)
        listener.reaction(key);
}

// Interfaces are numbered once for all tests, so that sets print in one order.
NatFixture::NatFixture()
    : mark(State::traceNext()) {
    for (const char* intf : {"Ethernet1", "Ethernet2", "Ethernet3", "Ethernet4"})
        L3::IntfId{std::string_view(intf)};
}

void NatFixture::start() {
    machine = KestrelNat::natMrouteSmFactory(requests, answers, status, routeMap, capability);
}

void NatFixture::tableIs(std::uint32_t vrf, Type type, std::string_view name) {
    const NatMcastRouteKey key = tableKey(vrf, type);
    const std::string_view tableName = name.empty() ? std::string_view(key.routeName) : name;
    if (lumen) {
        lumenFibs[key] = State::makeHandle<LumenFib>(tableName);
        routeMap->mfibIs(key, lumenFibs[key]);
    } else {
        quillTables[key] = State::makeHandle<QuillTable>(tableName);
        routeMap->mrouteRouteIs(key, quillTables[key]);
    }
}

void NatFixture::tableDel(std::uint32_t vrf, Type type) {
    const NatMcastRouteKey key = tableKey(vrf, type);
    routeMap->mfibDel(key);
    routeMap->mrouteRouteDel(key);
    lumenFibs.erase(key);
    quillTables.erase(key);
}

bool NatFixture::isWatched(std::uint32_t vrf, Type type) const {
    const NatMcastRouteKey key = tableKey(vrf, type);
    return lumen ? machine->mfibAppCollection().has(key) : machine->mcastRouteCollection().has(key);
}

void NatFixture::routeIs(std::uint32_t vrf, Type type, std::string_view source, std::string_view group,
                         Names intfs) {
    const NatMcastRouteKey table = tableKey(vrf, type);
    const IpGenRouteKey key = routeKey(source, group);
    if (!lumenFibs.contains(table) && !quillTables.contains(table))
        tableIs(vrf, type);
    if (!lumen) {
        Quill::Multicast::Fib::Route row;
        for (const std::string_view intf : intfs)
            row.oifs.insert(oifIndex(*quillTables[table], intf));
        quillTables[table]->routeIs(key, row);
        return;
    }
    L3::IntfSet set;
    for (const std::string_view intf : intfs)
        set.insert(L3::IntfId(intf));
    LumenFib& fib = *lumenFibs[table];
    if (const Handle<LumenRoute> present = fib.route(key)) {
        present->intfIs(set);
        present->versionAdvance();
    } else {
        const auto made = State::makeHandle<LumenRoute>(key);
        made->intfIs(set);
        fib.routeIs(made);
    }
}

void NatFixture::routeDel(std::uint32_t vrf, Type type, std::string_view source, std::string_view group) {
    const NatMcastRouteKey table = tableKey(vrf, type);
    if (lumen)
        lumenFibs[table]->routeDel(routeKey(source, group));
    else
        quillTables[table]->routeDel(routeKey(source, group));
}

std::uint16_t NatFixture::oifIndex(QuillTable& table, std::string_view intf) {
    const L3::IntfId id(intf);
    const auto index = static_cast<std::uint16_t>(100 + id.number());
    table.oifIndexIntfIs(index, id);
    return index;
}

std::string NatFixture::answer(const Ask& ask) const {
    return answerIn(answers, ask);
}

std::string NatFixture::answerOf(Type type, const Ask& ask) const {
    return answerIn(machine->mrouteResponseMapByRoute(KestrelNat::routeTypes()[type]), ask);
}

std::size_t NatFixture::requesters(const Ask& ask) const {
    return machine->vrfIdSourceAndGroupToIntf(KestrelNat::VrfIdMrouteSourceAndGroup::of(request(ask)))
        .iv()
        .size();
}

Lines NatFixture::traced() {
    Lines lines;
    for (const State::TraceRecord& record : State::traceRecordsSince(mark))
        if (record.facility == "KestrelNatMulticastSm")
            lines.push_back(std::to_string(record.level) + " " + record.message);
    mark = State::traceNext();
    return lines;
}

std::size_t NatFixture::countOf(const Lines& lines, std::string_view part) {
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(part) != std::string::npos;
    }));
}

} // namespace NatTest
