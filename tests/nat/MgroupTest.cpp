// The mgroup service where the model in tests/model does not lead: readers that change requests inside a
// delivery, inputs that are missing, damaged or full, notification off, abandoned construction, teardown.
#include "KestrelNat/KestrelNatMulticastSm/NatMgroupSm.h"
#include "state/Mount.h"
#include "tests/nat/FailingAllocation.h"
#include "tests/nat/NatFixture.h"

#include <optional>

namespace NatTest {

namespace {

using KestrelCommon::MrouteGroup::MgroupColl;
using KestrelCommon::MrouteGroup::MrouteColl;
using KestrelL3::IpMcastKey;
using KestrelNat::MrouteIntfAndVlan;
using KestrelNat::NatMgroupSm;

// Requests of one flow that differ in interface and VRF.
NatMrouteKey asked(unsigned number = 1, std::uint16_t vrf = 3) {
    const std::string intf = "Ethernet" + std::to_string(number);
    return request({.intf = intf, .vrf = vrf, .type = NatRequestType::mgroupRequest});
}
// The hardware's row for them.
IpMcastKey row(std::uint16_t vrf = 3) {
    return {vrf, L3::IpAddr("10.0.0.1"), L3::IpAddr("239.1.1.1"), 10};
}

class Mgroup : public testing::Test {
  protected:
    void start() { machine = KestrelNat::natMgroupSmFactory(requests, responses, status, config, groups); }
    void groupIs(const IpMcastKey& key, std::uint32_t id) { groups->mgroupsIs(key, {.groupId = id}); }
    std::optional<std::uint32_t> answer(const NatMrouteKey& key = asked()) const {
        return responses->mgroupIdHas(key) ? std::optional(responses->mgroupId(key)) : std::nullopt;
    }
    std::vector<IpMcastKey> configRows() const {
        std::vector<IpMcastKey> rows;
        config->mroutes([&](const auto& item) {
            rows.push_back(item.key());
            return true;
        });
        return rows;
    }
    // Who the state machine remembers for the flow, in order of asking.
    std::vector<MrouteIntfAndVlan> requesters() const {
        return machine->vrfIdSourceAndGroupToIntf(KestrelNat::VrfIdMrouteSourceAndGroup::of(asked()))
            .elements();
    }
    // Whether nobody but the test holds the inputs, or listens to them.
    bool areInputsFree() const {
        return !requests->hasSubscribers() && !groups->hasSubscribers() && requests->references() == 1 &&
               responses->references() == 1 && status->references() == 1 && config->references() == 1 &&
               groups->references() == 1;
    }

    Handle<KestrelNat::NatMgroupRequestSet> requests = makeHandle<KestrelNat::NatMgroupRequestSet>();
    Handle<KestrelNat::NatMgroupResponseMap> responses = makeHandle<KestrelNat::NatMgroupResponseMap>();
    Handle<KestrelNat::MulticastSmStatus> status = makeHandle<KestrelNat::MulticastSmStatus>();
    Handle<MrouteColl> config = makeHandle<MrouteColl>("config");
    Handle<MgroupColl> groups = makeHandle<MgroupColl>("status");
    Handle<NatMgroupSm> machine;
    Traced traced{"KestrelNatMulticastSm"};
};

TEST_F(Mgroup, PassesGoOnWithWhatTheirReadersChange) {
    start();
    requests->mgroupReqIs(asked());
    requests->mgroupReqIs(asked(2));
    std::vector<NatMrouteKey> heard;
    OnChange onAnswer(*responses, [&](const Notification& change) {
        heard.push_back(change.keyAs<NatMrouteKey>());
        requests->mgroupReqDel(asked(2));
    });
    groupIs(row(), 17);
    EXPECT_EQ(heard, (std::vector{asked(), asked(2)})) << "what went during the pass is answered by it";
    EXPECT_EQ(requesters(), std::vector{MrouteIntfAndVlan::of(asked())});

    machine.reset();
    requests->mgroupReqIs(asked(2));
    responses->mgroupIdDelAll();
    onAnswer.reaction = [&](const Notification&) {
        requests->mgroupReqDel(asked(2));
        requests->mgroupReqIs(asked(3));
    };
    start(); // its pass over the requests sees those that come and go meanwhile
    EXPECT_EQ(answer(), 17U);
    EXPECT_EQ(answer(asked(2)), std::nullopt);
    EXPECT_EQ(answer(asked(3)), 17U);
    EXPECT_EQ(requesters(), (std::vector{MrouteIntfAndVlan::of(asked()), MrouteIntfAndVlan::of(asked(3))}));
}

TEST_F(Mgroup, AStatusRowThatIsNotIpv4IsReportedAndChangesNothing) {
    start();
    requests->mgroupReqIs(asked());
    traced();
    groupIs({3, L3::IpGenAddr::fromString("2001:db8::1"), L3::IpGenAddr::fromString("ff0e::1"), 10}, 17);
    EXPECT_EQ(
        traced(),
        (Lines{"8 handleMcastGroupIds handling key with vrfId=3",
               "0 handleMcastGroupIds ignoring key that is not IPv4, source=2001:db8::1 group=ff0e::1"}));
}

TEST_F(Mgroup, ChangesMissedWhileSwitchedOffAreLost) {
    start();
    machine->hasNotificationActiveIs(false);
    requests->mgroupReqIs(asked());
    groupIs(row(), 17);
    machine->hasNotificationActiveIs(true);
    EXPECT_EQ(responses->mgroupIdCollection().size() + configRows().size(), 0U);

    machine = makeHandle<NatMgroupSm>(requests, responses, status, config, groups);
    machine->hasNotificationActiveIs(false); // as it was: changes nothing
    traced();
    requests->mgroupReqIs(asked(1, 4));
    groupIs(row(4), 18);
    EXPECT_EQ(answer(asked(1, 4)), 18U);
    EXPECT_EQ(traced().size(), 4U); // one of the request, three of the row
}

TEST_F(Mgroup, EachInputMayBeMissing) {
    const auto life = [&] {
        requests = makeHandle<KestrelNat::NatMgroupRequestSet>();
        requests->mgroupReqIs(asked());
        start();
        groupIs(row(), 17);
    };
    const auto written = std::exchange(responses, nullptr);
    life();
    EXPECT_EQ(configRows().size(), 1U);
    EXPECT_TRUE(status->mgroupSmReady());
    requests->mgroupReqDel(asked());
    EXPECT_TRUE(configRows().empty());

    responses = written;
    status.reset();
    config.reset();
    life();
    EXPECT_EQ(answer(), 17U);
    requests->mgroupReqDel(asked());
    EXPECT_EQ(answer(), std::nullopt);

    requests->mgroupReqIs(asked());
    groups.reset();
    start();
    machine->handleMcastGroupIds(row()); // the group reads as absent
    EXPECT_EQ(answer(), std::nullopt);
    requests.reset();
    start();
    machine->handleMgroupReq(asked()); // every request reads as withdrawn
    EXPECT_EQ(responses->mgroupIdCollection().size(), 0U);
}

TEST_F(Mgroup, ADamagedStatusRowReadsAsGroupIdZero) {
    start();
    groups->failReadAfter(0);
    requests->mgroupReqIs(asked());
    EXPECT_EQ(answer(), 0U);
    EXPECT_EQ(groups->lastCorruption(), "table status: a row is damaged");

    requests->mgroupReqIs(asked(2));
    groups->failReadAfter(1);
    groupIs(row(), 17);
    EXPECT_EQ(answer(), 17U);
    EXPECT_EQ(answer(asked(2)), 0U);

    // The row that went reads as present once, so the next requester is the first to lose its response.
    groups->failReadAfter(0);
    groups->mgroupsDel(row());
    EXPECT_EQ(answer(), 0U);
    EXPECT_EQ(answer(asked(2)), std::nullopt);
    EXPECT_EQ(groups->corruptions(), 3U);
}

TEST_F(Mgroup, DamageEndsAWalkOverTheConfiguration) {
    start();
    for (std::uint16_t vrf = 3; vrf <= 5; ++vrf)
        requests->mgroupReqIs(asked(1, vrf));
    machine->hasNotificationActiveIs(false);
    for (std::uint16_t vrf = 3; vrf <= 5; ++vrf)
        groupIs(row(vrf), vrf);
    config->failReadAfter(1);
    machine->handleMcastGroupIds();
    EXPECT_EQ(answer(), 3U);
    EXPECT_EQ(responses->mgroupIdCollection().size(), 1U);
    machine->handleMcastGroupIds();
    EXPECT_EQ(responses->mgroupIdCollection().size(), 3U);
    EXPECT_EQ(config->corruptions(), 1U);
}

TEST_F(Mgroup, AFullConfigurationRefusesAndServesTheRequestThatIsMadeAgain) {
    config->sizingIs({.mode = 0, .collections = {{.name = "mroutes", .capacity = 1, .reserve = 0}}});
    const NatMrouteKey late = asked(1, 9);
    start();
    requests->mgroupReqIs(asked());
    requests->mgroupReqIs(late);
    EXPECT_EQ(config->refused(), 1U);
    requests->mgroupReqDel(asked());
    EXPECT_TRUE(configRows().empty()) << "nothing is retried by itself";
    requests->mgroupReqDel(late);
    requests->mgroupReqIs(late);
    groupIs(row(9), 17);
    EXPECT_EQ(configRows(), std::vector{row(9)});
    EXPECT_EQ(answer(late), 17U);
}

TEST_F(Mgroup, AnAbandonedConstructionLeavesNothingAttached) {
    for (const unsigned number : {1U, 2U, 3U})
        requests->mgroupReqIs(asked(number));
    groupIs(row(), 17);
    start(); // from here on, all its trace statements are known
    machine.reset();
    const auto clear = [&] {
        EXPECT_TRUE(areInputsFree());
        responses = makeHandle<KestrelNat::NatMgroupResponseMap>();
        config = makeHandle<MrouteColl>("config");
    };
    clear();
    // There were as many allocations: object, subscriptions, record, rows, responses.
    EXPECT_GT(FailingAllocation::atEachStepOf([&] { start(); }, clear), 5U);
    EXPECT_EQ(answer(), 17U);
}

TEST_F(Mgroup, TeardownEmptiesTheRecordLeavesTheRestAndHearsNothingMore) {
    requests->mgroupReqIs(asked());
    requests->mgroupReqIs(asked(1, 4));
    groupIs(row(), 17);
    start();
    std::vector<std::uint32_t> removed;
    OnChange::Reaction onEnd = [&, held = machine.get()](const Notification& change) {
        removed.push_back(change.keyAs<KestrelNat::VrfIdMrouteSourceAndGroup>().vrfId.value());
        EXPECT_TRUE(held->retired());
        requests->mgroupReqIs(asked(2));
    };
    atEachChange(*machine, onEnd);
    machine.reset();
    EXPECT_EQ(removed, (std::vector<std::uint32_t>{3, 4}));
    EXPECT_EQ(answer(), 17U);
    EXPECT_EQ(configRows(), (std::vector{row(), row(4)}));
    EXPECT_TRUE(areInputsFree());
}

} // namespace

} // namespace NatTest
