// What a change costs as work grows: with VRFs that have a table each, with requesters of a flow, with routes
// of a group that a request for any source gathers. Each figure stands beside that of the smallest size; the
// column that tells of one unit (a VRF, a requester, a route) shows whether the growth is linear.
//
// What grows and why. A change in one VRF looks at that VRF's table and requests alone, so VRFs should cost
// it nothing but memory that no longer fits the caches; where the configuration gathers answers from all
// VRFs, it asks every table, which is what was asked for. Every requester has an answer of its own, which
// must be written and told. A request for any source is the union of all routes of its group, which is
// collected again for each change; a count of routes by interface would need memory for each request in
// exchange.
#include "bench/MrouteRig.h"
#include "bench/Report.h"
#include "state/Trace.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace {

using namespace KestrelNat;

NatMrouteKey requestOf(std::uint32_t vrf, const MrouteSourceAndGroup& flow, std::uint16_t vlan = 10) {
    return {.intf = L3::IntfId("Ethernet99"),
            .vrfId = vrf,
            .vlanId = vlan,
            .sourceIp = flow.sourceIp,
            .groupIp = flow.groupIp};
}

struct Growth {
    const char* what; // grows
    double smallest = 0;

    void row(Bench::Report& report, std::size_t size, const char* figure, double nanoseconds,
             bool isSmallest) {
        smallest = isSmallest ? nanoseconds : smallest;
        report.atMost((std::to_string(size) + " " + what + ": " + figure).c_str(), nanoseconds, smallest);
    }
};

// Nanoseconds a change of one of the flows, changed in turn; each must be heard `answers` times.
double changeTime(Bench::MrouteRig& rig, std::size_t vrfs, std::size_t flows, std::size_t changes,
                  std::size_t answers) {
    std::size_t which = 0;
    return Bench::leastOf(Bench::quick ? 3 : 7, [&] {
        const std::size_t before = rig.heard();
        std::size_t made = 0;
        const double each = Bench::timeEach(changes, [&] {
            while (made < changes) {
                ++which; // the other interfaces for each round through the flows
                for (std::size_t flow = 0; flow < flows && made < changes; ++flow)
                    for (std::size_t vrf = 1; vrf <= vrfs && made < changes; ++vrf, ++made)
                        rig.routeIs(static_cast<std::uint32_t>(vrf), Bench::flowOf(flow), which);
            }
        });
        if (rig.heard() - before != changes * answers)
            Bench::refuse("another number of answers than was to come");
        return each;
    });
}

void growVrfs() {
    constexpr std::size_t flows = 10;
    Bench::Report report("VRFs, each with a table of 10 routes and 10 requests", "ns", "at 1 VRF");
    Growth change{"VRFs"};
    Growth start{"VRFs"};
    Growth all{"VRFs"};
    Growth allEach{"VRFs"};
    const std::size_t most = Bench::quick ? 100 : 1'000; // whose start takes ten seconds
    for (std::size_t vrfs = 1; vrfs <= most; vrfs *= 10) {
        Bench::MrouteRig rig;
        for (std::uint32_t vrf = 1; vrf <= vrfs; ++vrf) {
            rig.vrfIs(vrf);
            for (std::size_t i = 0; i < flows; ++i) {
                rig.routeIs(vrf, Bench::flowOf(i), 0);
                rig.requestIs(requestOf(vrf, Bench::flowOf(i)));
            }
        }
        const double startEach = Bench::timeEach(vrfs, [&] { rig.start(); });
        // Whole rounds through all flows, so that every change differs from the route before.
        const std::size_t rounds =
            std::max<std::size_t>(2, (Bench::quick ? 40'000 : 200'000) / (vrfs * flows));
        change.row(report, vrfs, "change in one of them -> answer",
                   changeTime(rig, vrfs, flows, rounds * vrfs * flows, 1), vrfs == 1);
        start.row(report, vrfs, "start, a VRF", startEach, vrfs == 1);

        rig.egressFromAllVrfsIs(true);
        const std::size_t walks = std::max<std::size_t>(20, 20'000 / vrfs);
        std::size_t which = 0;
        const double allTime = Bench::leastOf(3, [&] {
            return Bench::timeEach(walks, [&] {
                for (std::size_t i = 0; i < walks; ++i)
                    rig.routeIs(1, Bench::flowOf(0), ++which);
            });
        });
        all.row(report, vrfs, "the same, answers from all VRFs", allTime, vrfs == 1);
        allEach.row(report, vrfs, "the same, a VRF", allTime / static_cast<double>(vrfs), vrfs == 1);
    }
}

void growRequesters() {
    constexpr std::size_t flows = 100;
    Bench::Report report("requesters of each of 100 flows", "ns", "at 1");
    Growth change{"requesters"};
    Growth each{"requesters"};
    for (const std::size_t requesters : {1U, 10U, 100U}) {
        Bench::MrouteRig rig;
        rig.vrfIs(1);
        rig.start();
        for (std::size_t i = 0; i < flows; ++i) {
            rig.routeIs(1, Bench::flowOf(i), 0);
            for (std::uint16_t vlan = 1; vlan <= requesters; ++vlan)
                rig.requestIs(requestOf(1, Bench::flowOf(i), vlan));
        }
        const std::size_t changes = flows * ((Bench::quick ? 200 : 1'000) / requesters);
        const double time = changeTime(rig, 1, flows, changes, requesters);
        change.row(report, requesters, "change -> all answers", time, requesters == 1);
        each.row(report, requesters, "the same, an answer", time / static_cast<double>(requesters),
                 requesters == 1);
    }
}

void growRoutesOfGroup() {
    Bench::Report report("routes of a group, a request for any source", "ns", "at 1");
    Growth any{"routes"};
    Growth each{"routes"};
    Growth exact{"routes"};
    const L3::IpAddr group("239.1.1.1");
    const auto member = [&](std::size_t i) {
        return MrouteSourceAndGroup{.sourceIp = L3::IpAddr(0x0a000001U + static_cast<std::uint32_t>(i)),
                                    .groupIp = group};
    };
    for (const std::size_t routes : {1U, 100U, 10'000U}) {
        const auto time = [&](const NatMrouteKey& request) {
            Bench::MrouteRig rig;
            rig.vrfIs(1);
            rig.start();
            for (std::size_t i = 0; i < routes; ++i)
                rig.routeIs(1, member(i), 0);
            rig.requestIs(request);
            const bool isAny = request.sourceIp.isZero();
            const std::size_t changes = isAny ? (Bench::quick ? 200'000 : 2'000'000) / (routes + 50) : 50'000;
            std::size_t which = 0;
            return Bench::leastOf(Bench::quick ? 3 : 7, [&] {
                const std::size_t before = rig.heard();
                const double result = Bench::timeEach(changes, [&] {
                    for (std::size_t i = 0; i < changes; ++i)
                        rig.routeIs(1, member(0), ++which);
                });
                // The union is the same after two changes, and differs after one where no other route has
                // those.
                if (rig.heard() - before != changes)
                    Bench::refuse("not one answer a change");
                return result;
            });
        };
        const double anyTime = time(requestOf(1, {.sourceIp = {}, .groupIp = group}));
        any.row(report, routes, "change of one -> answer of any source", anyTime, routes == 1);
        each.row(report, routes, "the same, a route", anyTime / static_cast<double>(routes), routes == 1);
        exact.row(report, routes, "change of one -> answer of its source", time(requestOf(1, member(0))),
                  routes == 1);
    }
}

} // namespace

int main() {
    State::traceRingIs({});
    State::traceSinkIs([](void*, const State::TraceRecord&) {}, nullptr);
    growVrfs();
    growRequesters();
    growRoutesOfGroup();
}
