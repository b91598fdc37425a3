// What the tests of the plug-in share: requests, changes heard, lines traced; and the mroute service with the
// entities around it, told of in tables and routes of whichever source the toggle chooses.
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMrouteSm.h"
#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"
#include "state/Trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace NatTest {

using KestrelNat::NatMcastRouteKey;
using KestrelNat::NatMrouteKey;
using KestrelNat::NatMrouteSm;
using KestrelNat::NatRequestType;
using Routing::Multicast::Fib::IpGenRouteKey;
using State::Handle;
using State::makeHandle;
using State::Notification;
using QuillTable = Quill::Multicast::Fib::Status;
using LumenFib = Lumen::Multicast::Fib::Status;
using LumenRoute = Lumen::Multicast::Fib::Route;
using Lines = std::vector<std::string>;

// Which source this process uses.
const bool lumen = KestrelNat::toggleKestrelNatMfibLumenEnabled();

// Positions in the list of route types.
enum Type : std::size_t { plain = 0, sparse = 1 };

// What the requests of the tests differ in; "0.0.0.0" is any.
struct Ask {
    std::string_view source = "10.0.0.1";
    std::string_view group = "239.1.1.1";
    std::string_view intf = "Ethernet9";
    std::uint32_t vrf = 3;
    std::uint16_t vlan = 10;
    NatRequestType type = NatRequestType::mrouteRequest;
};
inline NatMrouteKey request(const Ask& ask = {}) {
    return {.intf = L3::IntfId(ask.intf),
            .vrfId = ask.vrf,
            .vlanId = ask.vlan,
            .sourceIp = L3::IpAddr(ask.source),
            .groupIp = L3::IpAddr(ask.group),
            .type = ask.type};
}
// Of the group that requests ask for.
inline IpGenRouteKey routeKey(std::string_view source = "10.0.0.1") {
    return IpGenRouteKey::host(L3::IpAddr(source), request().groupIp);
}
inline NatMcastRouteKey tableKey(std::uint32_t vrf = 3, Type type = plain) {
    return {.vrfId = vrf, .routeName = KestrelNat::routeTypes()[type]};
}

// Calls `reaction` for every change of a publisher while it lives. A reaction may put another in its place.
class OnChange {
  public:
    using Reaction = std::function<void(const Notification&)>;

    explicit OnChange(const State::Publisher& publisher, Reaction given = {})
        : reaction(std::move(given))
        , publisher_(publisher) {
        publisher_.subscribe(this, &hear);
    }
    ~OnChange() { publisher_.unsubscribe(this, &hear); }
    OnChange(const OnChange&) = delete;
    OnChange& operator=(const OnChange&) = delete;

    Reaction reaction;

  private:
    static void hear(void* self, const Notification& change) {
        if (const Reaction current = static_cast<OnChange*>(self)->reaction)
            current(change);
    }
    const State::Publisher& publisher_;
};
// The same until the publisher ends, which the reaction outlives.
inline void atEachChange(const State::Publisher& publisher, OnChange::Reaction& reaction) {
    publisher.subscribe(&reaction, [](void* given, const Notification& change) {
        (*static_cast<OnChange::Reaction*>(given))(change);
    });
}

// The lines of a facility since the last call, or the beginning, as "LEVEL MESSAGE"; or how many of them hold `part`.
class Traced {
  public:
    explicit Traced(std::string_view facility)
        : facility_(facility) {}

    Lines operator()() {
        Lines lines;
        for (const State::TraceRecord& record : State::traceRecordsSince(mark_))
            if (record.facility == facility_)
                lines.push_back(std::to_string(record.level) + " " + record.message);
        mark_ = State::traceNext();
        return lines;
    }
    std::size_t operator()(std::string_view part) {
        const Lines lines = (*this)();
        const auto holds = [&](const std::string& line) { return line.find(part) != std::string::npos; };
        return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), holds));
    }

  private:
    std::string_view facility_;
    std::uint64_t mark_ = State::traceNext();
};

class NatFixture : public testing::Test {
  protected:
    // Interfaces are numbered once for all tests, so that sets print in one order.
    NatFixture() {
        for (const std::string_view intf : {"Ethernet1", "Ethernet2", "Ethernet3", "Ethernet4"})
            L3::IntfId{intf};
    }

    // The state machine, made by its factory.
    void start() {
        machine = KestrelNat::natMrouteSmFactory(requests, answers, status, routeMap, capability);
    }

    // An empty table, in the route map; `name` where it is not called as its type.
    void tableIs(const NatMcastRouteKey& key = tableKey(), std::string_view name = {}) {
        const std::string_view tableName = name.empty() ? std::string_view(key.routeName) : name;
        if (lumen)
            routeMap->mfibIs(key, lumenFibs[key] = makeHandle<LumenFib>(tableName));
        else
            routeMap->mrouteRouteIs(key, quillTables[key] = makeHandle<QuillTable>(tableName));
    }
    void tableDel(const NatMcastRouteKey& key = tableKey()) {
        routeMap->mfibDel(key);
        routeMap->mrouteRouteDel(key);
        lumenFibs.erase(key);
        quillTables.erase(key);
    }
    bool isWatched(const NatMcastRouteKey& key = tableKey()) const {
        return machine->mfibAppCollection().has(key) || machine->mcastRouteCollection().has(key);
    }
    // Adds or changes a route as the source's writer does; its table is there or made.
    void routeIs(std::initializer_list<std::string_view> intfs, std::string_view source = "10.0.0.1",
                 const NatMcastRouteKey& table = tableKey()) {
        if (!lumenFibs.contains(table) && !quillTables.contains(table))
            tableIs(table);
        L3::IntfSet set;
        Quill::Multicast::Fib::Route row;
        for (const std::string_view name : intfs) {
            const L3::IntfId intf(name);
            const auto index = static_cast<std::uint16_t>(100 + intf.number());
            set.insert(intf);
            row.oifs.insert(index);
            if (!lumen)
                quillTables[table]->oifIndexIntfIs(index, intf);
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
    void routeDel(std::string_view source = "10.0.0.1", const NatMcastRouteKey& table = tableKey()) {
        lumen ? lumenFibs[table]->routeDel(routeKey(source)) : quillTables[table]->routeDel(routeKey(source));
    }

    // "{Ethernet1, Ethernet2}" in order of their numbers, or "none" without an answer.
    std::string answer(const Ask& ask = {}) const { return answerIn(answers, ask); }
    // The same of what one route type yields.
    std::string answerOf(Type type) const {
        return answerIn(machine->mrouteResponseMapByRoute(KestrelNat::routeTypes()[type]), {});
    }
    std::size_t requesters() const {
        const auto flow = KestrelNat::VrfIdMrouteSourceAndGroup::of(request());
        return machine->vrfIdSourceAndGroupToIntf(flow).iv().size();
    }

    Handle<KestrelNat::NatMrouteRequestSet> requests = makeHandle<KestrelNat::NatMrouteRequestSet>();
    Handle<KestrelNat::NatMrouteResponseMap> answers =
        makeHandle<KestrelNat::NatMrouteResponseMap>("answers");
    Handle<KestrelNat::MulticastSmStatus> status = makeHandle<KestrelNat::MulticastSmStatus>();
    Handle<KestrelNat::NatMrouteRouteMap> routeMap = makeHandle<KestrelNat::NatMrouteRouteMap>();
    Handle<KestrelNat::CapabilityConfig> capability = makeHandle<KestrelNat::CapabilityConfig>();
    std::map<NatMcastRouteKey, Handle<QuillTable>> quillTables;
    std::map<NatMcastRouteKey, Handle<LumenFib>> lumenFibs;
    Handle<NatMrouteSm> machine;
    Traced traced{"KestrelNatMulticastSm"};

  private:
    static std::string answerIn(const Handle<KestrelNat::NatMrouteResponseMap>& map, const Ask& ask) {
        const auto* found = map->mrouteRespCollection().find(request(ask));
        if (found == nullptr)
            return "none";
        std::string out = "{";
        for (const L3::IntfId intf : found->oif())
            out += (out == "{" ? "" : ", ") + intf.stringValue();
        return out + "}";
    }
};

} // namespace NatTest
