// The mgroup service over its public surface: requests in, configuration rows, group ids and traces out, with
// the behaviours that are kept on purpose.
#include "tests/nat/MgroupFixture.h"

#include "state/TypeRegistry.h"

namespace MgroupTests {

using Rows = std::vector<IpMcastKey>;
using Requesters = std::vector<MrouteIntfAndVlan>;
using Lines = std::vector<std::string>;

TEST_F(MgroupTest, ARequestFollowsItsGroupFromAllocationToWithdrawal) {
    start();
    requests->mgroupReqIs(request());
    EXPECT_EQ(configRows(), Rows{row()});
    EXPECT_EQ(answer(request()), std::nullopt);

    groupIs(row(), 17);
    EXPECT_EQ(answer(request()), 17U);
    groupIs(row(), 18);
    EXPECT_EQ(answer(request()), 18U);
    groups->mgroupsDel(row());
    EXPECT_EQ(answer(request()), std::nullopt);

    groupIs(row(), 0); // no id is reserved
    EXPECT_EQ(answer(request()), 0U);
    requests->mgroupReqDel(request());
    EXPECT_EQ(answer(request()), std::nullopt);
    EXPECT_TRUE(configRows().empty());
    EXPECT_FALSE(machine->vrfIdSourceAndGroupToIntfHas(flow()));
}

TEST_F(MgroupTest, ARequestAfterItsGroupIsAnsweredAtOnce) {
    start();
    groupIs(row(), 17);
    requests->mgroupReqIs(request());
    EXPECT_EQ(answer(request()), 17U);
    EXPECT_EQ(configRows(), Rows{row()});
}

TEST_F(MgroupTest, RequestsThatDifferInInterfaceShareOneRow) {
    const NatMrouteKey first = request();
    const NatMrouteKey second = request({.intf = "Ethernet2"});
    start();
    requests->mgroupReqIs(first);
    requests->mgroupReqIs(second);
    EXPECT_EQ(configRows(), Rows{row()});
    EXPECT_EQ(requesters(), (Requesters{MrouteIntfAndVlan::of(first), MrouteIntfAndVlan::of(second)}));
    groupIs(row(), 17);
    EXPECT_EQ(answer(first), 17U);
    EXPECT_EQ(answer(second), 17U);

    // The shared row goes with either of them, and comes back with the next request for it.
    requests->mgroupReqDel(first);
    EXPECT_TRUE(configRows().empty());
    EXPECT_EQ(requesters(), Requesters{MrouteIntfAndVlan::of(second)});
    EXPECT_EQ(answer(first), std::nullopt);
    EXPECT_EQ(answer(second), 17U);
    requests->mgroupReqIs(first);
    EXPECT_EQ(configRows(), Rows{row()});
}

TEST_F(MgroupTest, AStatusRowThatGoesTakesTheFirstResponseOnly) {
    const NatMrouteKey first = request();
    const NatMrouteKey second = request({.intf = "Ethernet2"});
    start();
    requests->mgroupReqIs(first);
    requests->mgroupReqIs(second);
    groupIs(row(), 17);
    groups->mgroupsDel(row());
    EXPECT_EQ(answer(first), std::nullopt);
    EXPECT_EQ(answer(second), 17U);
    // Its own withdrawal takes the other.
    requests->mgroupReqDel(second);
    EXPECT_EQ(answer(second), std::nullopt);
}

TEST_F(MgroupTest, AStatusRowOfOneVlanAnswersEveryVlanOfTheFlow) {
    const NatMrouteKey ten = request({.vlan = 10});
    const NatMrouteKey twenty = request({.vlan = 20});
    start();
    requests->mgroupReqIs(ten);
    requests->mgroupReqIs(twenty);
    EXPECT_EQ(configRows(), (Rows{row(10), row(20)}));
    groupIs(row(10), 17);
    EXPECT_EQ(answer(ten), 17U);
    EXPECT_EQ(answer(twenty), 17U);
    groupIs(row(20), 18);
    EXPECT_EQ(answer(ten), 18U);
    EXPECT_EQ(answer(twenty), 18U);
    // A request made again reads the row of its own VLAN.
    requests->mgroupReqDel(ten);
    EXPECT_EQ(configRows(), Rows{row(20)});
    requests->mgroupReqIs(ten);
    EXPECT_EQ(answer(ten), 17U);
}

TEST_F(MgroupTest, AStatusRowThatNobodyAskedForIsReportedAndChangesNothing) {
    start();
    requests->mgroupReqIs(request());
    groupIs(row(10, 4), 17);
    groupIs({3, L3::IpAddr("10.0.0.2"), group, 10}, 17);
    groupIs({3, L3::IpGenAddr::fromString("2001:db8::1"), L3::IpGenAddr::fromString("ff0e::1"), 10}, 17);
    EXPECT_EQ(responses->mgroupIdCollection().size(), 0U);
    EXPECT_EQ(tracedCount("0 handleMcastGroupIds NOT found sourceIp=10.0.0.1 groupIp=239.1.1.1"), 1U);
    EXPECT_EQ(tracedCount("0 handleMcastGroupIds NOT found sourceIp=10.0.0.2 groupIp=239.1.1.1"), 1U);
    EXPECT_EQ(
        tracedCount("0 handleMcastGroupIds ignoring key that is not IPv4, source=2001:db8::1 group=ff0e::1"),
        1U);
}

// The group tables hold 16 bits of a VRF's identifier, the requests 24.
TEST_F(MgroupTest, AVrfIdAbove16BitsIsAnsweredOnlyWhereTheGroupComesFirst) {
    const NatMrouteKey large = request({.vrf = 0x10003});
    const NatMrouteKey small = request({.vrf = 3});
    start();
    requests->mgroupReqIs(large);
    EXPECT_EQ(configRows(), Rows{row(10, 3)});
    groupIs(row(10, 3), 17);
    EXPECT_EQ(answer(large), std::nullopt);
    EXPECT_EQ(tracedCount("0 handleMcastGroupIds NOT found sourceIp=10.0.0.1 groupIp=239.1.1.1"), 1U);

    requests->mgroupReqDel(large);
    requests->mgroupReqIs(large);
    EXPECT_EQ(answer(large), 17U);
    // Later changes of the group pass it by and reach the VRF whose identifier is those 16 bits.
    requests->mgroupReqIs(small);
    groupIs(row(10, 3), 18);
    EXPECT_EQ(answer(small), 18U);
    EXPECT_EQ(answer(large), 17U);
}

TEST_F(MgroupTest, IdsThatComeLaterAreWrittenUnderType1) {
    const NatMrouteKey asked = request({.type = NatRequestType::mrouteRequest});
    start();
    groupIs(row(), 17);
    requests->mgroupReqIs(asked);
    EXPECT_EQ(answer(asked), 17U);
    groupIs(row(), 18);
    EXPECT_EQ(answer(asked), 17U);
    EXPECT_EQ(answer(request()), 18U);
    requests->mgroupReqDel(asked);
    EXPECT_EQ(answer(asked), std::nullopt);
    EXPECT_EQ(answer(request()), 18U);
}

TEST_F(MgroupTest, StartsFromTheStateThatIsThereAndIsReadyAfterAllOfIt) {
    const NatMrouteKey waiting = request({.vlan = 30, .vrf = 4});
    requests->mgroupReqIs(request());
    requests->mgroupReqIs(request({.intf = "Ethernet2"}));
    requests->mgroupReqIs(waiting);
    groupIs(row(), 17);

    bool isReady = false;
    const OnChange onReady(*status, [&](const State::Notification&) {
        isReady = status->mgroupSmReady();
        EXPECT_EQ(responses->mgroupIdCollection().size(), 2U);
        EXPECT_EQ(configRows(), (Rows{row(), row(30, 4)}));
    });
    start();
    EXPECT_TRUE(isReady);
    EXPECT_FALSE(status->mrouteSmReady());
    EXPECT_EQ(answer(request({.intf = "Ethernet2"})), 17U);
    groupIs(row(30, 4), 18);
    EXPECT_EQ(answer(waiting), 18U);
}

TEST_F(MgroupTest, WritesItsTraceTextsPieceByPiece) {
    const std::string key =
        "NatMrouteKey (I=Ethernet1, vrfId=3, V=10, S=10.0.0.1, G=239.1.1.1), type=mgroupRequest";
    requests->mgroupReqIs(request());
    start();
    EXPECT_EQ(traced(), (Lines{"8 handleMgroupReq checking all mgroups being watched",
                               "8 handleMgroupReq adding group " + key,
                               "8 handleMcastGroupIds handling all watched mcast groups",
                               "8 handleMcastGroupIds handling key with vrfId=3",
                               "8 handleMcastGroupIds found sourceIp=10.0.0.1 groupIp=239.1.1.1",
                               "8 removed groupId for key (s=10.0.0.1, g=239.1.1.1, v=10)"}));
    mark = State::traceNext();
    requests->mgroupReqIs(request({.intf = "Ethernet2", .vlan = 20}));
    groupIs(row(), 17);
    requests->mgroupReqDel(request());
    const std::string otherKey = "NatMrouteKey (I=Ethernet2, vrfId=3, V=20, S=10.0.0.1, G=239.1.1.1)";
    EXPECT_EQ(traced(), (Lines{"8 handleMgroupReq adding group " + otherKey + ", type=mgroupRequest",
                               "8 handleMcastGroupIds handling key with vrfId=3",
                               "8 handleMcastGroupIds found sourceIp=10.0.0.1 groupIp=239.1.1.1",
                               "8 updated groupId for key (s=10.0.0.1, g=239.1.1.1, v=10), newGroupId=17",
                               "8 updated groupId for key (s=10.0.0.1, g=239.1.1.1, v=10), newGroupId=17",
                               "8 handleMgroupReq deleting group " + key}));
    const auto records = State::traceRecordsSince(mark);
    EXPECT_EQ(records.front().file, "KestrelNat/KestrelNatMulticastSm/NatMgroupRequests.cpp");
    EXPECT_EQ(records.front().function, "handleMgroupReq");
}

TEST_F(MgroupTest, ChangesMissedWhileSwitchedOffAreLost) {
    start();
    machine->hasNotificationActiveIs(false);
    requests->mgroupReqIs(request());
    groupIs(row(), 17);
    machine->hasNotificationActiveIs(true);
    EXPECT_EQ(responses->mgroupIdCollection().size() + configRows().size(), 0U);

    machine->hasNotificationActiveIs(true); // registers nothing twice
    mark = State::traceNext();
    requests->mgroupReqIs(request({.vrf = 4}));
    groupIs(row(10, 4), 18);
    EXPECT_EQ(answer(request({.vrf = 4})), 18U);
    EXPECT_EQ(traced().size(), 4U); // one of the request, three of the row
}

TEST_F(MgroupTest, APassIsNotDisturbedByWhatItsReadersChange) {
    const NatMrouteKey first = request();
    const NatMrouteKey second = request({.intf = "Ethernet2"});
    start();
    requests->mgroupReqIs(first);
    requests->mgroupReqIs(second);
    std::vector<NatMrouteKey> heard;
    const OnChange onAnswer(*responses, [&](const State::Notification& change) {
        heard.push_back(change.keyAs<NatMrouteKey>());
        requests->mgroupReqDel(second);
    });
    groupIs(row(), 17);
    // The request that went during the pass is answered by it all the same.
    EXPECT_EQ(heard, (std::vector{first, second}));
    EXPECT_EQ(requesters(), Requesters{MrouteIntfAndVlan::of(first)});
}

TEST_F(MgroupTest, AFullPassReadsRequestsThatComeAndGoMeanwhile) {
    const NatMrouteKey first = request();
    const NatMrouteKey gone = request({.intf = "Ethernet2"});
    const NatMrouteKey added = request({.intf = "Ethernet3"});
    groupIs(row(), 17);
    requests->mgroupReqIs(first);
    requests->mgroupReqIs(gone);
    const OnChange onAnswer(*responses, [&](const State::Notification&) {
        requests->mgroupReqDel(gone);
        requests->mgroupReqIs(added);
    });
    start();
    EXPECT_EQ(answer(first), 17U);
    EXPECT_EQ(answer(gone), std::nullopt);
    EXPECT_EQ(answer(added), 17U);
    EXPECT_EQ(requesters(), (Requesters{MrouteIntfAndVlan::of(first), MrouteIntfAndVlan::of(added)}));
}

TEST_F(MgroupTest, IsMadeByItsTypeName) {
    requests->mgroupReqIs(request());
    const std::vector<State::Argument> arguments{
        State::Handle<const State::RefCounted>(requests), State::Handle<const State::RefCounted>(responses),
        State::Handle<const State::RefCounted>(status), State::Handle<const State::RefCounted>(config),
        State::Handle<const State::RefCounted>(groups)};
    machine = State::handleCast<NatMgroupSm>(State::createByTypeName("KestrelNat::NatMgroupSm", arguments));
    ASSERT_TRUE(machine);
    EXPECT_TRUE(machine->notificationActive());
    EXPECT_TRUE(machine->mgroupRequestSet() == requests && machine->l3MgroupStatus() == groups);
    groupIs(row(), 17);
    EXPECT_EQ(answer(request()), 17U);
}

} // namespace MgroupTests
