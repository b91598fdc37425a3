// The mgroup service over its public surface: requests in, configuration rows, group ids and traces out, with
// the behaviours that are kept on purpose.
#include "tests/nat/MgroupFixture.h"

namespace MgroupTests {

using Rows = std::vector<IpMcastKey>;
using Requesters = std::vector<MrouteIntfAndVlan>;
using Lines = std::vector<std::string>;

// What is kept on purpose, and looks like a slip each time.
TEST_F(MgroupTest, GroupIdsGoByFlowAndConfigurationRowsByTheLatestWithdrawal) {
    const NatMrouteKey first = request();
    const NatMrouteKey second = request({.intf = "Ethernet2"});
    const NatMrouteKey otherVlan = request({.vlan = 20});
    start();
    for (const NatMrouteKey& key : {first, second, otherVlan})
        requests->mgroupReqIs(key);
    EXPECT_EQ(configRows(), (Rows{row(), row(20)}));
    groupIs(row(), 17); // answers every VLAN of the flow
    EXPECT_EQ(answer(first), 17U);
    EXPECT_EQ(answer(second), 17U);
    EXPECT_EQ(answer(otherVlan), 17U);
    groups->mgroupsDel(row()); // takes the first response only
    EXPECT_EQ(answer(first), std::nullopt);
    EXPECT_EQ(answer(second), 17U);
    requests->mgroupReqDel(second); // takes the row that it shares with the first
    EXPECT_EQ(configRows(), Rows{row(20)});
    EXPECT_EQ(requesters(), (Requesters{MrouteIntfAndVlan::of(first), MrouteIntfAndVlan::of(otherVlan)}));
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

} // namespace MgroupTests
