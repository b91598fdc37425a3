// The mgroup service where something is missing, damaged, full or ends: null inputs, corruption, capacity,
// abandoned construction, teardown.
#include "tests/nat/FailingAllocation.h"
#include "tests/nat/MgroupFixture.h"

#include <functional>
#include <new>

namespace MgroupTests {

TEST_F(MgroupTest, EachInputMayBeMissing) {
    const auto life = [&] {
        requests = State::makeHandle<KestrelNat::NatMgroupRequestSet>();
        requests->mgroupReqIs(request());
        start();
        groupIs(row(), 17);
    };
    const auto written = std::exchange(responses, nullptr);
    life();
    EXPECT_EQ(configRows().size(), 1U);
    EXPECT_TRUE(status->mgroupSmReady());
    requests->mgroupReqDel(request());
    EXPECT_TRUE(configRows().empty());

    responses = written;
    status.reset();
    config.reset();
    life();
    EXPECT_EQ(answer(request()), 17U);
    requests->mgroupReqDel(request());
    EXPECT_EQ(answer(request()), std::nullopt);

    requests->mgroupReqIs(request());
    groups.reset();
    start();
    machine->handleMcastGroupIds(row()); // the group reads as absent
    EXPECT_EQ(answer(request()), std::nullopt);
    requests.reset();
    start();
    machine->handleMgroupReq(request()); // every request reads as withdrawn
    EXPECT_EQ(responses->mgroupIdCollection().size(), 0U);
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
    for (const std::uint16_t vrf : vrfs)
        requests->mgroupReqIs(request({.vrf = vrf}));
    machine->hasNotificationActiveIs(false);
    for (const std::uint16_t vrf : vrfs)
        groupIs(row(10, vrf), vrf);
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
    config->sizingIs({.mode = 0, .collections = {{.name = "mroutes", .capacity = 1, .reserve = 0}}});
    const NatMrouteKey late = request({.vrf = 9});
    start();
    requests->mgroupReqIs(request());
    requests->mgroupReqIs(request({.intf = "Ethernet2"})); // the row is there
    EXPECT_EQ(config->refused(), 0U);
    requests->mgroupReqIs(late);
    EXPECT_EQ(config->refused(), 1U);
    requests->mgroupReqDel(request());
    EXPECT_TRUE(configRows().empty()) << "nothing is retried by itself";
    requests->mgroupReqDel(late);
    requests->mgroupReqIs(late);
    groupIs(row(10, 9), 17);
    EXPECT_EQ(configRows(), std::vector{row(10, 9)});
    EXPECT_EQ(answer(late), 17U);
}

TEST_F(MgroupTest, AnAbandonedConstructionLeavesNothingAttached) {
    for (const char* intf : {"Ethernet1", "Ethernet2", "Ethernet3"})
        requests->mgroupReqIs(request({.intf = intf}));
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

TEST_F(MgroupTest, TeardownLeavesResponsesAndRowsWhereTheyAreAndHearsNothingMore) {
    requests->mgroupReqIs(request());
    groupIs(row(), 17);
    start();
    int removals = 0;
    const auto held = machine.get();
    std::function<void()> onEnd = [&] { // the record of requesters is emptied
        ++removals;
        EXPECT_TRUE(held->retired());
        requests->mgroupReqIs(request({.vlan = 20}));
    };
    machine->subscribe(&onEnd, [](void* reaction, const State::Notification&) {
        (*static_cast<std::function<void()>*>(reaction))();
    });
    machine.reset();
    EXPECT_EQ(removals, 1);
    EXPECT_EQ(answer(request()), 17U);
    EXPECT_EQ(configRows(), std::vector{row()});
    EXPECT_FALSE(requests->hasSubscribers() || groups->hasSubscribers());
    EXPECT_TRUE(requests->references() == 1 && responses->references() == 1 && status->references() == 1 &&
                config->references() == 1 && groups->references() == 1);
}

} // namespace MgroupTests
