// The software chip beside the real plug-in: which groups it gives, when, and which it gives again.
#include "agent/host/SoftwareChip.h"

#include "tests/agent/InProcessAgent.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <utility>

namespace AgentTest {
namespace {

class SoftwareChipTest : public testing::Test {
  protected:
    static Json request(unsigned group) {
        return json("{'intf': 'Ethernet5', 'vrfId': 3, 'vlanId': 10, 'sourceIp': '10.0.0.1', 'groupIp': %,"
                    " 'type': 1}",
                    "239.1.1." + std::to_string(group));
    }
    void ask(unsigned group) {
        agent.operations.change(setOf("api/mgroup/req", "mgroupReq", request(group)));
    }
    void withdraw(unsigned group) {
        agent.operations.change(delOf("api/mgroup/req", "mgroupReq", request(group)));
    }
    // The group id that the plug-in answers; 0: none.
    std::uint64_t answer(unsigned group) const {
        const State::Datum key = request(group).datum();
        const auto value = agent.operations.value("api/mgroup/resp", "mgroupId", &key);
        return value ? *value->number() : 0;
    }
    // Lets the chip work if it is awake.
    bool turn(Agent::SoftwareChip& chip) {
        const bool wasAwake = std::exchange(isAwake, false);
        if (wasAwake)
            chip.work();
        return wasAwake;
    }
    std::size_t groups() const { return agent.get("l3/mroutegroup/status", "mgroups").size(); }

    InProcessAgent agent;
    bool isAwake = false;
    const std::function<void()> wake = [this] { isAwake = true; };
};

TEST_F(SoftwareChipTest, GroupsComeOnTheNextTurnAndFreedOnesComeAgainLowestFirst) {
    Agent::SoftwareChip chip(agent.host.stores(), wake);
    agent.host.start();
    for (unsigned group = 1; group <= 4; ++group)
        ask(group);
    EXPECT_EQ(answer(1), 0U) << "the chip did not wait for its turn";
    EXPECT_TRUE(turn(chip));
    for (unsigned group = 1; group <= 4; ++group)
        EXPECT_EQ(answer(group), group);
    withdraw(3);
    withdraw(2);
    turn(chip);
    EXPECT_EQ(groups(), 2U);
    ask(7);
    ask(8);
    ask(9);
    turn(chip);
    EXPECT_EQ(answer(7), 2U);
    EXPECT_EQ(answer(8), 3U);
    EXPECT_EQ(answer(9), 5U);

    // What comes and goes before the chip's turn has never been.
    ask(10);
    withdraw(10);
    turn(chip);
    EXPECT_EQ(groups(), 5U);
    ask(11);
    turn(chip);
    EXPECT_EQ(answer(11), 6U);
}

TEST_F(SoftwareChipTest, AGroupThatSomebodyElseGaveIsLeftAlone) {
    Agent::SoftwareChip chip(agent.host.stores(), wake);
    agent.host.start();
    const Json row = json("{'vrfId': 3, 'source': '10.0.0.1', 'group': '239.1.1.1', 'vlanId': 10}");
    agent.operations.change(setOf("l3/mroutegroup/status", "mgroups", row, json("{'groupId': 17}")));
    ask(1);
    turn(chip);
    EXPECT_EQ(answer(1), 17U);
    withdraw(1);
    turn(chip);
    EXPECT_EQ(agent.get("l3/mroutegroup/status", "mgroups").size(), 1U);
}

TEST_F(SoftwareChipTest, ManyRowsAreWorkedOffInSeveralTasks) {
    Agent::SoftwareChip chip(agent.host.stores(), wake);
    agent.host.start();
    constexpr unsigned count = 1000;
    for (unsigned vlan = 1; vlan <= count; ++vlan)
        agent.operations.change(setOf("api/mgroup/req", "mgroupReq", request(1).with("vlanId", vlan)));
    std::size_t turns = 0;
    while (turn(chip))
        ++turns;
    EXPECT_GT(turns, 1U);
    std::set<Json> ids;
    for (const Json& row : agent.get("l3/mroutegroup/status", "mgroups"))
        ids.insert(row.at(1));
    EXPECT_EQ(ids.size(), count) << "a group was given twice";
}

} // namespace
} // namespace AgentTest
