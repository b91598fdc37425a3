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
using KestrelNat::natMgroupSmFactory;
using KestrelNat::VrfIdMrouteSourceAndGroup;

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
    void start() { machine = natMgroupSmFactory(requests, responses, status, config, groups); }
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
    bool areInputsHeld() const {
        return requests->hasSubscribers() || groups->hasSubscribers() || requests->references() > 1 ||
               responses->references() > 1 || status->references() > 1 || config->references() > 1 ||
               groups->references() > 1;
    }

    Handle<KestrelNat::NatMgroupRequestSet> requests = makeHandle<KestrelNat::NatMgroupRequestSet>();
    Handle<KestrelNat::NatMgroupResponseMap> responses = makeHandle<KestrelNat::NatMgroupResponseMap>();
    Handle<KestrelNat::MulticastSmStatus> status = makeHandle<KestrelNat::MulticastSmStatus>();
    Handle<MrouteColl> config = makeHandle<MrouteColl>("config");
    Handle<MgroupColl> groups = makeHandle<MgroupColl>("status");
    Handle<KestrelNat::NatMgroupSm> machine;
    Traced traced{"KestrelNatMulticastSm"};
};

TEST_F(Mgroup, PassesGoOnWithWhatTheirReadersChange) {
    start();
    requests->mgroupReqIs(asked());
    requests->mgroupReqIs(asked(2));
    OnChange onAnswer(*responses, [&](const Notification&) { requests->mgroupReqDel(asked(2)); });
    groupIs(row(), 17);
    EXPECT_EQ(answer(), 17U);
    EXPECT_EQ(answer(asked(2)), 17U) << "what went during the pass is answered by it";
    EXPECT_EQ(machine->vrfIdSourceAndGroupToIntf(VrfIdMrouteSourceAndGroup::of(asked())).iv().size(), 1U);

    machine.reset();
    onAnswer.reaction = nullptr;
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
}

TEST_F(Mgroup, ChangesMissedWhileSwitchedOffAreLost) {
    start();
    machine->hasNotificationActiveIs(false);
    requests->mgroupReqIs(asked());
    groupIs(row(), 17);
    machine->hasNotificationActiveIs(true);
    EXPECT_EQ(responses->mgroupIdCollection().size() + configRows().size(), 0U);

    machine = makeHandle<KestrelNat::NatMgroupSm>(requests, responses, status, config, groups);
    machine->hasNotificationActiveIs(false); // as it was: changes nothing
    requests->mgroupReqIs(asked(1, 4));
    groupIs(row(4), 18);
    EXPECT_EQ(answer(asked(1, 4)), 18U);
    traced();
    groupIs({3, L3::IpGenAddr::fromString("2001:db8::1"), L3::IpGenAddr::fromString("ff0e::1"), 10}, 17);
    EXPECT_EQ(
        traced(),
        (Lines{"8 handleMcastGroupIds handling key with vrfId=3",
               "0 handleMcastGroupIds ignoring key that is not IPv4, source=2001:db8::1 group=ff0e::1"}));
}

TEST_F(Mgroup, EachInputMayBeMissing) {
    requests->mgroupReqIs(asked());
    groupIs(row(), 17);
    machine = natMgroupSmFactory(requests, nullptr, status, config, groups);
    EXPECT_EQ(configRows(), std::vector{row()});
    EXPECT_TRUE(status->mgroupSmReady());
    requests->mgroupReqDel(asked());
    EXPECT_TRUE(configRows().empty());

    machine = natMgroupSmFactory(requests, responses, nullptr, nullptr, groups);
    requests->mgroupReqIs(asked());
    EXPECT_EQ(answer(), 17U);
    requests->mgroupReqDel(asked());
    EXPECT_EQ(answer(), std::nullopt);
    requests->mgroupReqIs(asked());

    machine = natMgroupSmFactory(requests, responses, status, config, nullptr);
    machine->handleMcastGroupIds(row()); // the group reads as absent
    EXPECT_EQ(answer(), std::nullopt);
    start();
    EXPECT_EQ(answer(), 17U);
    machine = natMgroupSmFactory(nullptr, responses, status, config, groups);
    machine->handleMgroupReq(asked()); // every request reads as withdrawn
    EXPECT_EQ(answer(), std::nullopt);
}

TEST_F(Mgroup, ADamagedStatusRowReadsAsGroupIdZeroAndDamageEndsAWalk) {
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

    requests->mgroupReqIs(asked(1, 4));
    traced();
    config->failReadAfter(1);
    for (const std::size_t rows : {1U, 2U}) {
        machine->handleMcastGroupIds();
        EXPECT_EQ(traced("handling key"), rows);
    }
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
    EXPECT_EQ(configRows(), std::vector{row(9)});
}

TEST_F(Mgroup, AnAbandonedConstructionAndTheEndLeaveNothingAttached) {
    requests->mgroupReqIs(asked());
    requests->mgroupReqIs(asked(1, 4));
    groupIs(row(), 17);
    start(); // from here on, all its trace statements are known
    machine.reset();
    const auto clear = [&] {
        EXPECT_FALSE(areInputsHeld());
        responses = makeHandle<KestrelNat::NatMgroupResponseMap>();
        config = makeHandle<MrouteColl>("config");
    };
    clear();
    EXPECT_GT(FailingAllocation::atEachStepOf([&] { start(); }, clear), 5U);

    std::vector<std::uint32_t> forgotten;
    OnChange::Reaction onEnd = [&, held = machine.get()](const Notification& change) {
        forgotten.push_back(change.keyAs<VrfIdMrouteSourceAndGroup>().vrfId.value());
        EXPECT_TRUE(held->retired());
        requests->mgroupReqIs(asked(2)); // which nobody hears
    };
    atEachChange(*machine, onEnd);
    machine.reset();
    EXPECT_EQ(forgotten, (std::vector<std::uint32_t>{3, 4}));
    EXPECT_EQ(answer(), 17U);
    EXPECT_EQ(configRows(), (std::vector{row(), row(4)}));
    EXPECT_FALSE(areInputsHeld());
}

} // namespace

} // namespace NatTest
