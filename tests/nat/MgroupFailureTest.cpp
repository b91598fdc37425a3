// The mgroup service where something is missing, damaged, full or ends: null inputs, corruption, capacity,
// abandoned construction, teardown.
#include "tests/nat/FailingAllocation.h"
#include "tests/nat/MgroupFixture.h"

#include <new>

namespace MgroupTests {

TEST_F(MgroupTest, EachInputMayBeMissing) {
    const auto life = [&] {
        requests = State::makeHandle<KestrelNat::NatMgroupRequestSet>();
        requests->mgroupReqIs(request());
        start();
        groupIs(row(), 17);
    };

    responses.reset();
    life();
    EXPECT_EQ(configRows().size(), 1U);
    EXPECT_TRUE(status->mgroupSmReady());
    requests->mgroupReqDel(request());
    EXPECT_TRUE(configRows().empty());

    responses = State::makeHandle<KestrelNat::NatMgroupResponseMap>();
    status.reset();
    life();
    EXPECT_EQ(answer(request()), 17U);

    responses = State::makeHandle<KestrelNat::NatMgroupResponseMap>();
    config.reset();
    life();
    EXPECT_EQ(answer(request()), 17U);
    requests->mgroupReqDel(request());
    EXPECT_EQ(answer(request()), std::nullopt);
}

TEST_F(MgroupTest, NeitherTheRequestsNorTheGroupStatusNeedBeThere) {
    auto present = std::exchange(groups, nullptr);
    requests->mgroupReqIs(request());
    start();
    EXPECT_EQ(configRows().size(), 1U);
    EXPECT_EQ(answer(request()), std::nullopt);
    machine->handleMcastGroupIds(row()); // the group reads as absent
    EXPECT_EQ(responses->mgroupIdCollection().size(), 0U);

    groups = std::move(present);
    requests.reset();
    status = State::makeHandle<KestrelNat::MulticastSmStatus>();
    start();
    EXPECT_TRUE(status->mgroupSmReady());
    machine->handleMgroupReq(request()); // every request reads as withdrawn
    EXPECT_TRUE(configRows().empty());
}

TEST_F(MgroupTest, ADamagedStatusRowReadsAsGroupIdZero) {
    const NatMrouteKey first = request();
    const NatMrouteKey second = request({.intf = "Ethernet2"});
    start();
    groups->failReadAfter(0);
    requests->mgroupReqIs(first);
    EXPECT_EQ(answer(first), 0U);
    EXPECT_EQ(groups->corruptions(), 1U);
    EXPECT_EQ(groups->lastCorruption(), "table status: a row is damaged");

    requests->mgroupReqIs(second);
    groups->failReadAfter(1);
    groupIs(row(), 17);
    EXPECT_EQ(answer(first), 17U);
    EXPECT_EQ(answer(second), 0U);
    EXPECT_EQ(groups->corruptions(), 2U);

    // The row that went reads as present once, so the next requester is the first to lose its response.
    groups->failReadAfter(0);
    groups->mgroupsDel(row());
    EXPECT_EQ(answer(first), 0U);
    EXPECT_EQ(answer(second), std::nullopt);
    EXPECT_EQ(groups->corruptions(), 3U);
}

TEST_F(MgroupTest, DamageEndsAWalkOverTheConfiguration) {
    const std::vector<std::uint16_t> vrfs{3, 4, 5};
    start();
    for (const std::uint16_t vrf : vrfs) {
        requests->mgroupReqIs(request({.vrf = vrf}));
    }
    machine->hasNotificationActiveIs(false);
    for (const std::uint16_t vrf : vrfs) {
        groupIs(row(10, vrf), vrf);
    }
    config->failReadAfter(1);
    machine->handleMcastGroupIds();
    EXPECT_EQ(answer(request({.vrf = 3})), 3U);
    EXPECT_EQ(responses->mgroupIdCollection().size(), 1U);
    EXPECT_EQ(config->corruptions(), 1U);
    machine->handleMcastGroupIds();
    EXPECT_EQ(responses->mgroupIdCollection().size(), 3U);
    EXPECT_EQ(config->corruptions(), 1U);
}

TEST_F(MgroupTest, AFullConfigurationRefusesAndServesTheRequestThatIsMadeAgain) {
    constexpr std::uint32_t capacity = 16000;
    config->sizingIs({.mode = 0, .collections = {{.name = "mroutes", .capacity = capacity, .reserve = 0}}});
    start();
    for (std::uint32_t i = 0; i < capacity; ++i) {
        requests->mgroupReqIs(
            request({.vlan = static_cast<std::uint16_t>(1 + i % 4000), .vrf = 1 + i / 4000}));
    }
    EXPECT_EQ(config->refused(), 0U);

    const NatMrouteKey late = request({.vrf = 9});
    const NatMrouteKey shares = request({.intf = "Ethernet2", .vlan = 1, .vrf = 1}); // a row that is there
    requests->mgroupReqIs(late);
    requests->mgroupReqIs(shares);
    EXPECT_EQ(config->mroutesCollection().size(), capacity);
    EXPECT_FALSE(config->mroutesCollection().has(row(10, 9)));
    EXPECT_TRUE(config->mroutesCollection().has(row(1, 1)));
    EXPECT_EQ(config->refused(), 1U);
    std::vector<std::string> told;
    for (const State::TraceRecord& record : State::traceRecordsLast(20)) {
        if (record.level == 0) {
            told.push_back(record.message);
        }
    }
    EXPECT_EQ(told, std::vector<std::string>{"refuse table=config is full, capacity=16000 refused=1"});

    requests->mgroupReqDel(request({.vlan = 4000, .vrf = 4}));
    EXPECT_FALSE(config->mroutesCollection().has(row(10, 9))); // nothing is retried by itself
    requests->mgroupReqDel(late);
    requests->mgroupReqIs(late);
    EXPECT_TRUE(config->mroutesCollection().has(row(10, 9)));
    EXPECT_EQ(config->refused(), 1U);
    groupIs(row(10, 9), 17);
    EXPECT_EQ(answer(late), 17U);
}

TEST_F(MgroupTest, AnAbandonedConstructionLeavesNothingAttached) {
    for (const char* intf : {"Ethernet1", "Ethernet2", "Ethernet3"}) {
        requests->mgroupReqIs(request({.intf = intf}));
    }
    groupIs(row(), 17);
    start(); // from here on, all its trace statements are known
    machine.reset();

    std::size_t steps = 0;
    for (bool abandoned = true; abandoned; ++steps) {
        responses = State::makeHandle<KestrelNat::NatMgroupResponseMap>();
        config = State::makeHandle<MrouteColl>("config");
        FailingAllocation::failAfter(steps);
        try {
            start();
            abandoned = FailingAllocation::stop();
            EXPECT_FALSE(abandoned) << "an allocation failed unnoticed";
        } catch (const std::bad_alloc&) {
            FailingAllocation::stop();
            EXPECT_FALSE(requests->hasSubscribers() || groups->hasSubscribers());
            EXPECT_TRUE(requests->references() == 1 && responses->references() == 1 &&
                        config->references() == 1 && groups->references() == 1);
        }
    }
    EXPECT_GT(steps, 5U); // there were as many allocations: object, subscriptions, record, rows, responses
    EXPECT_EQ(answer(request()), 17U);
}

TEST_F(MgroupTest, TeardownLeavesResponsesAndRowsWhereTheyAre) {
    requests->mgroupReqIs(request());
    groupIs(row(), 17);
    start();

    // One who listens to the record of requesters hears it emptied by a machine that reacts to nothing any
    // more.
    struct Listener {
        KestrelNat::NatMgroupRequestSet& requests;
        NatMgroupSm& machine;
        int removals = 0;
        static void hear(void* self, const State::Notification&) {
            auto& [requests, machine, removals] = *static_cast<Listener*>(self);
            ++removals;
            EXPECT_TRUE(machine.retired());
            EXPECT_FALSE(machine.vrfIdSourceAndGroupToIntfHas(flow()));
            requests.mgroupReqIs(request({.vlan = 20}));
        }
    };
    Listener listener{*requests, *machine};
    machine->subscribe(&listener, &Listener::hear);
    machine.reset();

    EXPECT_EQ(listener.removals, 1);
    EXPECT_EQ(answer(request()), 17U);
    EXPECT_EQ(configRows(), std::vector{row()});
    EXPECT_FALSE(requests->hasSubscribers() || groups->hasSubscribers());
    EXPECT_TRUE(requests->references() == 1 && responses->references() == 1 && status->references() == 1 &&
                config->references() == 1 && groups->references() == 1);
    groupIs(row(), 18);
    requests->mgroupReqDel(request());
    EXPECT_EQ(answer(request()), 17U);
}

} // namespace MgroupTests
