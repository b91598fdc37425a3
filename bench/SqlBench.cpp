// From a changed route to the published answer: the mroute service beside an embedded SQL database with
// indexes and triggers (SqlRoutes.h), with the same 16,384 requests and the same changes, in turn, at 100 to
// 1,000,000 routes. Both hear of each answer; at the end all their answers are compared. The service's rows
// are in insertion order and its trace ring is off.
#include "bench/MrouteRig.h"
#include "bench/Report.h"
#include "bench/SqlRoutes.h"
#include "state/Trace.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace KestrelNat;

constexpr std::uint32_t vrf = 3;
constexpr std::size_t mostRequests = 16'384;

NatMrouteKey requestOf(std::size_t i) {
    const MrouteSourceAndGroup flow = Bench::flowOf(i);
    return {.intf = L3::IntfId("Ethernet99"),
            .vrfId = vrf,
            .vlanId = 10,
            .sourceIp = flow.sourceIp,
            .groupIp = flow.groupIp};
}

const std::string& interfacesText(std::size_t which) {
    static const std::string texts[] = {"1 2 3 4", "5 6 7 8"};
    return texts[which % 2];
}

std::string textOf(const NatMrouteOifSet* answer) {
    if (answer == nullptr)
        return "absent";
    std::string text;
    for (const L3::IntfId intf : *answer)
        text += (text.empty() ? "" : " ") + intf.stringValue().substr(std::string("Ethernet").size());
    return text;
}

// Changes the routes of flows drawn at random, each time to the other interfaces; change(flow, interfaces)
// does it.
template <class Change>
class Changes {
  public:
    Changes(std::size_t flows, Change change)
        : state_(flows)
        , change_(change) {}

    // Nanoseconds a change: the least of ten spells that are short enough to fall between what else runs
    // here.
    double time() {
        return Bench::leastOf(10, [&] {
            std::array<std::uint32_t, spell> order{};
            std::ranges::generate(order,
                                  [&] { return static_cast<std::uint32_t>(random_() % state_.size()); });
            made_ += spell;
            return Bench::timeEach(spell, [&] {
                for (const std::uint32_t flow : order) {
                    state_[flow] = !state_[flow];
                    change_(flow, state_[flow] ? 1U : 0U);
                }
            });
        });
    }
    std::size_t made() const { return made_; }

  private:
    static constexpr std::size_t spell = 4'000;

    std::mt19937 random_{7};
    std::vector<bool> state_;
    Change change_;
    std::size_t made_ = 0;
};

void measure(Bench::Report& report, std::size_t routes, double goal) {
    const std::size_t requests = std::min(routes, mostRequests);
    Bench::MrouteRig rig;
    Bench::SqlRoutes sql;
    rig.vrfIs(vrf);
    for (std::size_t i = 0; i < routes; ++i) {
        rig.routeIs(vrf, Bench::flowOf(i), 0);
        sql.routeIs(vrf, Bench::flowOf(i), interfacesText(0));
    }
    rig.start();
    for (std::size_t i = 0; i < requests; ++i) {
        rig.requestIs(requestOf(i));
        sql.requestIs(requestOf(i));
    }

    Changes ourChanges(requests,
                       [&](std::size_t i, std::size_t which) { rig.routeIs(vrf, Bench::flowOf(i), which); });
    Changes sqlChanges(requests, [&](std::size_t i, std::size_t which) {
        sql.routeIs(vrf, Bench::flowOf(i), interfacesText(which));
    });
    const std::size_t ourBefore = rig.heard();
    const std::size_t sqlBefore = sql.heard();
    const auto [ours, peer] = Bench::leastOfTwo(
        Bench::quick ? 3 : 9, [&] { return ourChanges.time(); }, [&] { return sqlChanges.time(); });
    if (rig.heard() - ourBefore != ourChanges.made() || sql.heard() - sqlBefore != sqlChanges.made())
        Bench::refuse("not one answer a change");
    for (std::size_t i = 0; i < requests; ++i) {
        rig.routeIs(vrf, Bench::flowOf(i), i);
        sql.routeIs(vrf, Bench::flowOf(i), interfacesText(i));
        const std::string answer = textOf(rig.answer(requestOf(i)));
        if (answer != sql.answer(requestOf(i)) || answer != interfacesText(i))
            Bench::refuse("the two give different answers");
    }
    report.timesBetter(("change -> answer, " + std::to_string(routes) + " routes").c_str(), ours, peer, goal);
}

} // namespace

int main() {
    State::traceRingIs({});
    State::traceSinkIs([](void*, const State::TraceRecord&) {}, nullptr);
    for (std::uint16_t i = 1; i <= 8; ++i)
        Bench::interface(i); // their numbers follow their names in every program
    Bench::Report report("the mroute service, and SQL with triggers", "ns", "SQL ns");
    measure(report, 100, 0);
    measure(report, 10'000, 0);
    measure(report, 100'000, 25);
    if (!Bench::quick)
        measure(report, 1'000'000, 0);
}
