// Operations in process, with the real plug-in.
#include "agent/changes/Operations.h"

#include "tests/agent/InProcessAgent.h"

#include <gtest/gtest.h>

#include <ctime>
#include <random>
#include <vector>

namespace AgentTest {
namespace {

using Agent::Change;
using Agent::Refusal;
using Agent::RefusalKind;

const char* const vrfs = "routing/hardware/route/status";
const char* const enabled = "routing/multicast/fibenabled/status";
const char* const userFibs = "lumen/multicast/fib/ipv4/user";
const Json route = json("{'source': '10.0.0.1/32', 'group': '239.1.1.1/32'}");
const Json none = json("{}");

Json requestKey(unsigned intf = 5, unsigned type = 0) {
    return json(
        "{'intf': %, 'vrfId': 3, 'vlanId': 10, 'sourceIp': '10.0.0.1', 'groupIp': '239.1.1.1', 'type': %}",
        "Ethernet" + std::to_string(intf), type);
}

TEST(OperationsTest, AWriteMakesTheTableAndARemovalDoesNot) {
    InProcessAgent agent;
    const std::string attribute = "route";
    const State::Datum& key = route.datum();
    for (const std::string table :
         {"routing/multicast/routestatus/red/static", "lumen/multicast/fib/ipv4/user/red"}) {
        EXPECT_FALSE(agent.operations.change(delOf(table, attribute, route)));
        EXPECT_EQ(agent.get(table, attribute).size(), 0U);
        EXPECT_EQ(agent.operations.value(table, attribute, &key), std::nullopt);
        EXPECT_TRUE(agent.operations.change({.path = table}));
        EXPECT_FALSE(agent.operations.change({.path = table}));
        EXPECT_TRUE(agent.operations.change(setOf(table, attribute, route, none)));
        EXPECT_EQ(agent.get(table, attribute).size(), 1U);
        EXPECT_TRUE(agent.operations.change(delOf(table, attribute, route)));
    }
    EXPECT_EQ(agent.get(userFibs, "status").size(), 1U);
}

TEST(OperationsTest, OnlyWhatIsCarriedOutEntersInterfaceNames) {
    InProcessAgent agent;
    agent.host.start();
    const std::string requests = "api/mroute/req";
    const auto request = [](const std::string& intf, int vlan) {
        return requestKey().with("intf", intf).with("vlanId", vlan);
    };
    const std::uint64_t before = L3::IntfId::names();
    const Json asked = request("asked", 10);
    EXPECT_EQ(agent.operations.value(requests, "mrouteReq", &asked.datum()), std::nullopt);
    EXPECT_FALSE(agent.operations.change(delOf(requests, "mrouteReq", request("withdrawn", 10))));
    EXPECT_THROW(agent.operations.change(setOf(requests, "mrouteReq", request("refused", 0))), Refusal);
    const std::vector<Change> changes{setOf(requests, "mrouteReq", request("first", 10)),
                                      setOf(requests, "mrouteReq", request("second", 10)),
                                      setOf(requests, "mrouteReq", request("third", 0))};
    EXPECT_THROW(agent.operations.apply(changes), Refusal);
    agent.operations.check({changes.data(), 2});
    EXPECT_EQ(L3::IntfId::names(), before);
    EXPECT_EQ(agent.operations.apply({changes.data(), 2}).changed, 2U);
    EXPECT_EQ(L3::IntfId::names(), before + 2);
}

TEST(OperationsTest, WhatIsWrongIsSaidWithItsPlace) {
    InProcessAgent agent;
    struct Wrong {
        Change change;
        std::string text;
        std::string field;
    };
    const std::string requests = "api/mroute/req";
    const Json unknownField = requestKey().with("vlan", 1);
    const Json badSource = requestKey().with("sourceIp", "10.0.0");
    const Wrong cases[] = {
        {setOf("api/mroute/reqs", "mrouteReq", requestKey()), "nearest known one is api/mroute/req", ""},
        {setOf("routing/multicast/routestatus/red/user", "route", route),
         "routing/multicast/routestatus/VRF/TYPE, where TYPE is static or sparsemode", ""},
        {setOf("routing/multicast/routestatus//static", "route", route), "unknown path", ""},
        {setOf(std::string(userFibs) + "/" + std::string(101, 'v'), "route", route, none), "length > 100",
         ""},
        {setOf("", "x", 1), "unknown path \"\"", ""},
        {setOf(requests, "mrouteResp", requestKey()), "has mrouteReq", "attribute"},
        {setOf(requests, "", {}), "an attribute must be named", "attribute"},
        {setOf(requests, "mrouteReq", {}), "the member's key must be given", "key"},
        {setOf(requests, "mrouteReq", requestKey(), 1), "keys without values", "value"},
        {setOf(requests, "mrouteReq", unknownField), "has no attribute \"vlan\"", "key"},
        {setOf(requests, "mrouteReq", badSource), "'10.0.0' is none", "sourceIp"},
        {setOf(requests, "mrouteReq", "red"), "takes an object, not a string", "key"},
        {setOf(enabled, "vrfEnabled", "red"), "must be given a value", "value"},
        {setOf(enabled, "vrfEnabled", "red", 1), "takes true or false", "value"},
        {setOf(enabled, "vrfEnabled", std::string(101, 'v'), true), "length > 100", "key"},
        {setOf(vrfs, "vrfStatus", "red", json("{'vrfId': -1}")), "not a negative number", "vrfId"},
        {setOf(vrfs, "vrfStatus", "red", json("{'id': 1}")), "has no attribute \"id\"", "value"},
        {delOf(enabled, "vrfEnabled", 7), "takes a string", "key"},
        {delOf("hardware/kestrel/nat/capability/config", "egressFromAllVrfs", {}), "set, not removed",
         "attribute"},
        {setOf("hardware/kestrel/nat/capability/config", "egressFromAllVrfs", 1, true), "it has no key",
         "key"},
    };
    for (const Wrong& wrong : cases) {
        SCOPED_TRACE(wrong.text);
        const Refusal error = refusalOf([&] { agent.operations.change(wrong.change); });
        EXPECT_EQ(error.kind(), RefusalKind::invalid);
        EXPECT_NE(std::string(error.what()).find(wrong.text), std::string::npos) << error.what();
        EXPECT_EQ(error.where().path, wrong.change.path);
        EXPECT_EQ(error.where().field, wrong.field) << error.what();
    }
    EXPECT_EQ(agent.operations.counters().changes, 0U);
}

TEST(OperationsTest, SixteenThousandRequestsAreOneQuickTurn) {
    InProcessAgent agent;
    agent.host.start();
    std::vector<Change> changes = vrfInUse();
    for (unsigned i = 0; i < 16000; ++i)
        changes.push_back(setOf("api/mroute/req", "mrouteReq", requestKey(i)));
    const std::clock_t begin = std::clock(); // the processor's time, whatever else it does
    const auto result = agent.operations.apply(changes);
    const double seconds = static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
    EXPECT_EQ(result.changed, 16004U);
    EXPECT_EQ(result.answers.size(), 16000U);
    RecordProperty("milliseconds", static_cast<int>(seconds * 1000));
    EXPECT_LT(seconds, 5.0) << "something is quadratic";

    changes.back().key = requestKey(0, 1).datum(); // the twin of the first
    changes.erase(changes.begin(), changes.begin() + 4);
    EXPECT_EQ(refusalOf([&] { agent.operations.apply(changes); }).where().index, 15999U);
}

// Draws changes of a small world, in which guards are often hit.
class Draw {
  public:
    explicit Draw(unsigned seed)
        : random_(seed) {}

    std::size_t below(std::size_t count) { return random_() % count; }

    Change change() {
        static const std::string names[] = {"red", "blue", "green", "default"};
        const std::string vrf = names[below(4)];
        const std::string fib =
            std::string("lumen/multicast/fib/ipv4/") + (below(2) == 0 ? "user" : "sparsemode");
        switch (below(11)) {
        case 0:
        case 1:
            return setOf(vrfs, "vrfStatus", vrf, json("{'vrfId': %}", below(4)));
        case 2:
            return delOf(vrfs, "vrfStatus", vrf);
        case 3:
            return setOf(enabled, "vrfEnabled", vrf, below(3) != 0);
        case 4:
            return delOf(enabled, "vrfEnabled", vrf);
        case 5:
            return {.path = fib + "/" + vrf};
        case 6:
            return below(2) == 0 ? setOf(fib, "status", vrf, none) : delOf(fib, "status", vrf);
        case 7:
            return setOf(fib + "/" + vrf, "route", route,
                         json("{'intf': [%]}", "Ethernet" + std::to_string(below(3))));
        case 8:
            return setOf("hardware/kestrel/nat/capability/config", "egressFromAllVrfs", {}, below(2) == 0);
        case 9:
            return delOf("api/mroute/req", "mrouteReq", key());
        default:
            return setOf("api/mroute/req", "mrouteReq", key());
        }
    }

  private:
    Json key() {
        return requestKey(static_cast<unsigned>(below(2)), static_cast<unsigned>(below(3)))
            .with("vrfId", below(4))
            .with("groupIp", below(4) == 0 ? "0.0.0.0" : "239.1.1.1")
            .with("sourceIp", below(4) == 0 ? "0.0.0.0" : "10.0.0.1");
    }

    std::mt19937 random_;
};

Json picture(const InProcessAgent& agent) {
    std::vector<Json> all = {agent.get(vrfs, "vrfStatus"), agent.get(enabled, "vrfEnabled"),
                             agent.get("api/mroute/req", "mrouteReq"),
                             agent.get("api/mroute/resp", "mrouteResp")};
    for (const char* type : {"user", "sparsemode"}) {
        const std::string fibs = std::string("lumen/multicast/fib/ipv4/") + type;
        for (const auto& fib : agent.get(fibs, "status"))
            all.emplace_back(agent.get(fibs + "/" + fib.at(0).text(), "route"));
    }
    return all;
}

// Carries out changes one by one as far as they are let through.
std::size_t carryOutSingly(InProcessAgent& agent, const std::vector<Change>& changes) {
    for (std::size_t i = 0; i < changes.size(); ++i) {
        try {
            agent.operations.change(changes[i]);
        } catch (const Refusal& error) {
            EXPECT_EQ(error.kind(), RefusalKind::guard) << error.what();
            return i;
        }
    }
    return changes.size();
}

// What a list of changes is judged by, worked out without carrying them out, must be what the stores would
// say; and whatever the guards let through, the plug-in must survive.
TEST(OperationsTest, AListIsJudgedAsItsChangesOneByOneWouldBe) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    Draw draw(seed);
    InProcessAgent listed;
    InProcessAgent single;
    listed.host.start();
    single.host.start();
    std::size_t refusals = 0;
    for (int round = 0; round < 1500; ++round) {
        std::vector<Change> changes(1 + draw.below(8));
        for (Change& change : changes)
            change = draw.change();
        const std::size_t fit = carryOutSingly(single, changes);
        if (fit < changes.size()) {
            ++refusals;
            const Json before = picture(listed);
            const Refusal error = refusalOf([&] { listed.operations.apply(changes); });
            ASSERT_EQ(error.where().index, fit) << error.what();
            ASSERT_EQ(picture(listed), before) << "a refused list changed something";
            changes.resize(fit);
        }
        ASSERT_NO_THROW(listed.operations.apply(changes));
        ASSERT_EQ(picture(listed), picture(single));
    }
    EXPECT_GT(refusals, 100U);
}

} // namespace
} // namespace AgentTest
