// The mgroup service: from a request to its row of the group configuration, and from a changed group id to
// the answer, at 100 and 16,000 groups (as many as the configuration takes), beside the floor: what any
// implementation must do for it, with the same containers. For a request that is a probe of the group status,
// a record of who asks, the row, and the notification that brought it; for an id the row of the status with
// its notification, a probe for the requester, and the answer with its notification. With the trace ring off
// and on.
#include "KestrelNat/KestrelNatMulticastSm/NatMgroupSm.h"
#include "bench/Report.h"
#include "state/Trace.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace KestrelNat;
using KestrelCommon::MrouteGroup::MgroupColl;
using KestrelCommon::MrouteGroup::MrouteColl;
using KestrelCommon::MrouteGroup::MrouteItem;
using KestrelL3::IpMcastKey;
using State::Handle;
using State::makeHandle;

constexpr std::uint32_t vrf = 3;

NatMrouteKey requestOf(std::uint32_t i) {
    return {.intf = L3::IntfId("Ethernet99"),
            .vrfId = vrf,
            .vlanId = 10,
            .sourceIp = L3::IpAddr(0x0a000000U | (i * 2654435761U >> 12 & 0xffffU)),
            .groupIp = L3::IpAddr(0xe8000000U | i),
            .type = NatRequestType::mgroupRequest};
}

IpMcastKey rowOf(const NatMrouteKey& key) {
    return {.vrfId = vrf, .source = key.sourceIp, .group = key.groupIp, .vlanId = key.vlanId};
}

struct Stores {
    Handle<NatMgroupRequestSet> requests = makeHandle<NatMgroupRequestSet>();
    Handle<NatMgroupResponseMap> responses = makeHandle<NatMgroupResponseMap>();
    Handle<MrouteColl> config = makeHandle<MrouteColl>("config");
    Handle<MgroupColl> groups = makeHandle<MgroupColl>("status");
};

class System : public Stores {
  public:
    System() {
        machine_ = natMgroupSmFactory(requests, responses, makeHandle<MulticastSmStatus>(), config, groups);
        responses->subscribe(this, &hear);
    }
    ~System() { responses->unsubscribe(this, &hear); }
    System(const System&) = delete;
    System& operator=(const System&) = delete;

    void requestIs(const NatMrouteKey& key) { requests->mgroupReqIs(key); }
    void requestDel(const NatMrouteKey& key) { requests->mgroupReqDel(key); }
    void groupIs(const NatMrouteKey& key, std::uint32_t id) {
        groups->mgroupsIs(rowOf(key), {.groupId = id});
    }
    std::size_t heard() const { return heard_; }

  private:
    static void hear(void* self, const State::Notification& /*change*/) {
        ++static_cast<System*>(self)->heard_;
    }
    Handle<NatMgroupSm> machine_;
    std::size_t heard_ = 0;
};

// The same writes, probes and notifications by the shortest way.
class Floor : public Stores {
  public:
    Floor() {
        requests->subscribe(this, &hearRequest);
        groups->subscribe(this, &hearGroup);
        responses->subscribe(this, &hear);
    }
    ~Floor() {
        requests->unsubscribe(this, &hearRequest);
        groups->unsubscribe(this, &hearGroup);
        responses->unsubscribe(this, &hear);
    }
    Floor(const Floor&) = delete;
    Floor& operator=(const Floor&) = delete;

    void requestIs(const NatMrouteKey& key) { requests->mgroupReqIs(key); }
    void requestDel(const NatMrouteKey& key) {
        requests->mgroupReqDel(key);
        requesters_.del(VrfIdMrouteSourceAndGroup::of(key));
        config->mroutesDel(rowOf(key));
        responses->mgroupIdDel(key);
    }
    void groupIs(const NatMrouteKey& key, std::uint32_t id) {
        groups->mgroupsIs(rowOf(key), {.groupId = id});
    }

  private:
    static void hearRequest(void* self, const State::Notification& change) {
        auto& floor = *static_cast<Floor*>(self);
        const auto& key = change.keyAs<NatMrouteKey>();
        if (!floor.requests->mgroupReqHas(key))
            return;
        floor.requesters_.is(VrfIdMrouteSourceAndGroup::of(key), MrouteIntfAndVlan::of(key));
        const IpMcastKey row = rowOf(key);
        floor.config->mroutesIs(MrouteItem(row));
        if (floor.groups->mgroup(row))
            Bench::refuse("a group is there already");
    }
    static void hearGroup(void* self, const State::Notification& change) {
        auto& floor = *static_cast<Floor*>(self);
        const auto& row = change.keyAs<IpMcastKey>();
        const VrfIdMrouteSourceAndGroup flow{
            .vrfId = row.vrfId, .sg = {.sourceIp = row.source.ipv4(), .groupIp = row.group.ipv4()}};
        const MrouteIntfAndVlan* requester = floor.requesters_.find(flow);
        const auto item = floor.groups->mgroup(row);
        if (requester == nullptr || !item)
            return;
        floor.responses->mgroupIdIs({.intf = requester->intf,
                                     .vrfId = row.vrfId,
                                     .vlanId = requester->vlanId,
                                     .sourceIp = flow.sg.sourceIp,
                                     .groupIp = flow.sg.groupIp,
                                     .type = NatRequestType::mgroupRequest},
                                    item->groupId());
    }
    static void hear(void* self, const State::Notification& /*change*/) {
        ++static_cast<Floor*>(self)->heard_;
    }

    struct Owner : State::Publisher {};
    Handle<Owner> owner_ = makeHandle<Owner>();
    State::MapAttribute<VrfIdMrouteSourceAndGroup, MrouteIntfAndVlan> requesters_{*owner_, 0, 517662159U};
    std::size_t heard_ = 0;
};

std::vector<NatMrouteKey> someRequests(std::uint32_t count) {
    std::vector<NatMrouteKey> keys;
    for (std::uint32_t i = 0; i < count; ++i)
        keys.push_back(requestOf(i));
    std::shuffle(keys.begin(), keys.end(), std::mt19937(7));
    return keys;
}

// Nanoseconds a request, from none to all and again, often enough to be timed.
template <class Subject>
double requestTime(Subject& subject, const std::vector<NatMrouteKey>& keys, std::size_t rounds) {
    Bench::ThreadClock::duration time{};
    for (std::size_t round = 0; round < rounds; ++round) {
        const auto begin = Bench::ThreadClock::now();
        for (const NatMrouteKey& key : keys)
            subject.requestIs(key);
        time += Bench::ThreadClock::now() - begin;
        if (subject.config->mroutesCollection().size() != keys.size())
            Bench::refuse("rows of the configuration are missing");
        for (const NatMrouteKey& key : keys)
            subject.requestDel(key);
    }
    return Bench::nanosecondsEach(time, rounds * keys.size());
}

// Nanoseconds a changed id.
template <class Subject>
double groupTime(Subject& subject, const std::vector<NatMrouteKey>& keys, std::size_t rounds,
                 std::uint32_t& id) {
    return Bench::timeEach(rounds * keys.size(), [&] {
        for (std::size_t round = 0; round < rounds; ++round) {
            ++id;
            for (const NatMrouteKey& key : keys)
                subject.groupIs(key, id);
        }
    });
}

void measure(Bench::Report& report, std::uint32_t groups, const char* ringName, double goal) {
    const std::vector<NatMrouteKey> keys = someRequests(groups);
    const std::size_t rounds = (Bench::quick ? 48'000U : 160'000U) / groups;
    const int passes = Bench::quick ? 3 : 7;
    const std::string suffix = ", " + std::to_string(groups) + " groups, " + ringName;
    System system;
    Floor floor;

    const auto [request, requestFloor] = Bench::leastOfTwo(
        passes, [&] { return requestTime(system, keys, rounds); },
        [&] { return requestTime(floor, keys, rounds); });
    report.atMost(("request -> configuration row" + suffix).c_str(), request, requestFloor, goal);

    for (const NatMrouteKey& key : keys) {
        system.requestIs(key);
        floor.requestIs(key);
    }
    std::uint32_t id = 0;
    std::uint32_t floorId = 0;
    const std::size_t before = system.heard();
    const auto [group, groupFloor] = Bench::leastOfTwo(
        passes, [&] { return groupTime(system, keys, rounds, id); },
        [&] { return groupTime(floor, keys, rounds, floorId); });
    if (system.heard() - before != static_cast<std::size_t>(passes) * rounds * groups)
        Bench::refuse("answers are missing");
    report.atMost(("status change -> answer" + suffix).c_str(), group, groupFloor, goal);
}

} // namespace

int main() {
    State::traceSinkIs([](void*, const State::TraceRecord&) {}, nullptr);
    static std::vector<std::byte> ring(State::traceRingDefaultBytes);
    Bench::Report report("mgroup", "ns", "floor ns");
    for (const std::uint32_t groups : {100U, 16'000U}) {
        State::traceRingIs({});
        measure(report, groups, "ring off", 2.5);
        State::traceRingIs(ring);
        measure(report, groups, "ring on", 3.2);
    }
}
