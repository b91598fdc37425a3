// A full table of interface names, and what makes room in it.
#include "agent/changes/Answers.h"
#include "agent/kernel/TableSink.h"
#include "tests/agent/InProcessAgent.h"

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

namespace AgentTest {
namespace {

using Agent::Change;
using Agent::Refusal;
using L3::IntfId;

const std::string requests = "api/mroute/req";
const std::string answers = "api/mroute/resp";
const std::string fib = "lumen/multicast/fib/ipv4/user/red";
const std::string quillTable = "routing/multicast/routestatus/red/static";

class NameSweepTest : public ::testing::Test {
  protected:
    static Json routeKey(const std::string& source, const std::string& group = "239.1.1.1/32") {
        return json("{'source': %, 'group': %}", source, group);
    }
    static Change routeTo(const Json& key, const std::vector<Json>& oifs) {
        return setOf(fib, "route", key, json("{'intf': %, 'ready': 1}", oifs));
    }
    static Json request(const std::string& intf, const std::string& source = "10.0.0.1", unsigned vrf = 3) {
        return json("{'intf': %, 'vrfId': %, 'vlanId': 10, 'sourceIp': %, 'groupIp': '239.1.1.1', 'type': 0}",
                    intf, vrf, source);
    }
    static Change posted(const Json& key) { return setOf(requests, "mrouteReq", key); }
    static Change withdrawn(const Json& key) { return delOf(requests, "mrouteReq", key); }

    void startWithVrf() {
        agent.host.start();
        agent.operations.apply(vrfInUse());
    }
    std::vector<Json> held() const {
        std::vector<Json> all;
        for (const auto& [path, attribute] :
             {std::pair(requests, "mrouteReq"), std::pair(answers, "mrouteResp"),
              std::pair(quillTable, "oifIndexIntf"), std::pair(fib, "route")})
            for (const Json& member : agent.get(path, attribute))
                all.push_back(member);
        return all;
    }

    // One route takes all names that are left; none is carried any more when it goes.
    void fill() {
        std::vector<Json> oifs;
        for (std::size_t left = IntfId::maxNames - IntfId::names(); left > 0; --left)
            oifs.emplace_back(prefix + std::to_string(left));
        prefix += 'x';
        agent.operations.change(routeTo(filler, oifs));
        ASSERT_EQ(IntfId::names(), IntfId::maxNames);
    }
    void empty() { agent.operations.change(delOf(fib, "route", filler)); }

    const Agent::NameSweep& sweep() const { return agent.operations.names(); }

    // The table is the process's: what a test named is not left to others. Destroyed last.
    struct Cleaner {
        ~Cleaner() {
            IntfId::sweep([](IntfId) { return false; });
        }
    } cleaner;
    const Json filler = routeKey("10.9.9.9/32", "239.9.9.9/32");
    std::string prefix = "sub";
    InProcessAgent agent;
};

TEST_F(NameSweepTest, TakesWhatNothingStoredCarriesWhenANewNameFindsNoRoom) {
    const Json flow = routeKey("10.0.0.1/32");
    const Json anySource = routeKey("0.0.0.0/0");
    startWithVrf();
    agent.operations.apply(
        std::vector<Change>{routeTo(flow, {"out1", "out2"}), posted(request("asks")),
                            posted(request("unanswered", "10.0.0.1", 9)), // in the VRF of nobody
                            routeTo(anySource, {"stale"}), posted(request("asksToo", "10.0.0.2")),
                            delOf(fib, "route", anySource), // its interface stays in the answer
                            setOf(quillTable, "oifIndexIntf", 7, "indexed")});
    const std::vector<std::string> carried{"out1",  "out2",    "asks",   "unanswered",
                                           "stale", "asksToo", "indexed"};
    const std::vector<Json> before = held();
    fill();
    empty();
    ASSERT_EQ(IntfId::names(), IntfId::maxNames);

    const std::vector<Change> more{posted(request("new1")), posted(request("new2"))};
    EXPECT_EQ(agent.operations.apply(more).changed, 2U);
    EXPECT_EQ(IntfId::names(), carried.size() + 2);
    EXPECT_EQ(sweep().swept(), IntfId::maxNames - carried.size());
    for (const std::string& name : carried)
        EXPECT_TRUE(IntfId::find(name).has_value()) << name;
    for (const char* name : {"new1", "new2"})
        EXPECT_TRUE(agent.operations.change(withdrawn(request(name))));
    EXPECT_EQ(held(), before);
    // What the plug-in keeps for itself goes by the same numbers.
    agent.operations.change(routeTo(flow, {"out1", "out3"}));
    EXPECT_EQ(agent.get(answers, "mrouteResp").at(0).at(1), json("['out1', 'out3']"));
    agent.operations.change(withdrawn(request("asks")));
    agent.operations.change(withdrawn(request("asksToo", "10.0.0.2")));
    EXPECT_EQ(agent.get(answers, "mrouteResp").size(), 0U);
}

TEST_F(NameSweepTest, LeavesTheLogOfAnswersItsNames) {
    const Agent::AnswerLog log(agent.host.stores(), agent.operations.names());
    startWithVrf();
    agent.operations.change(routeTo(routeKey("10.0.0.1/32"), {"out"}));
    agent.operations.change(posted(request("asked")));
    agent.operations.change(withdrawn(request("asked")));
    agent.operations.change(delOf(fib, "route", routeKey("10.0.0.1/32")));
    fill();
    empty();
    agent.operations.change(posted(request("new")));
    EXPECT_EQ(IntfId::names(), 3U);
    EXPECT_EQ(log.change(1).key.intf.stringValue(), "asked");
    EXPECT_EQ(Agent::toDatum(log.change(1).answer), json("['out']").datum());
}

TEST_F(NameSweepTest, IsNotTriedForEveryNameThatATableInUseRefuses) {
    fill();
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i) {
        const Refusal refusal = refusalOf([&] { agent.operations.change(posted(request("onemore"))); });
        EXPECT_STREQ(refusal.what(),
                     "KestrelNat::NatMrouteKey, attribute intf: L3::IntfId: name 'onemore' not "
                     "allowed: there are 65536 names already");
        EXPECT_EQ(refusal.kind(), Agent::RefusalKind::invalid);
    }
    EXPECT_TRUE(agent.operations.change({.path = quillTable}));
    const auto seconds = std::chrono::floor<std::chrono::seconds>(std::chrono::steady_clock::now() - began);
    EXPECT_GE(sweep().sweeps(), 1U);
    EXPECT_LE(sweep().sweeps(), 1U + static_cast<std::uint64_t>(seconds.count()));
    EXPECT_EQ(sweep().swept(), 0U);
}

TEST_F(NameSweepTest, MakesRoomForTheKernelsInterfacesToo) {
    const auto tables = Agent::Kernel::agentTables(agent.operations);
    const auto put = [&](const char* name) {
        const Agent::Oif oif{.ifindex = 5, .name = name};
        return tables->putRoute({.name = "red"}, Agent::RouteType::staticRoutes, {.source = 1, .group = 2},
                                {&oif, 1});
    };
    fill();
    empty();
    EXPECT_EQ(put("eth5"), "");
    fill();
    EXPECT_NE(put("eth6").find("there are 65536 names already"), std::string::npos);
    EXPECT_EQ(agent.get(fib, "route").at(0).at(1).at("intf"), json("['eth5']"));
}

// A Quill row that can't have its interface's new name keeps the old one until its routes are put again.
TEST_F(NameSweepTest, LeavesARefusedRenameToTheNextPut) {
    const auto table =
        Agent::quillSource().make(agent.host.stores())->table("red", Agent::RouteType::staticRoutes);
    const Agent::RouteKey key = Agent::RouteKey::host(L3::IpAddr("10.0.0.1"), L3::IpAddr("239.1.1.1"));
    const auto put = [&](const char* name) {
        const Agent::Oif oif{.ifindex = 5, .name = name};
        return table->put(key, {&oif, 1});
    };
    put("eth5");
    fill();
    EXPECT_FALSE(table->rename(5, "uplink"));
    EXPECT_THROW(put("uplink"), State::RangeError);
    EXPECT_EQ(agent.get(quillTable, "oifIndexIntf"), std::vector{json("[1, 'eth5']")});
    empty();
    agent.operations.change(posted(request("makesroom")));
    EXPECT_TRUE(put("uplink"));
    EXPECT_TRUE(table->rename(5, "uplink2"));
    EXPECT_EQ(agent.get(quillTable, "oifIndexIntf"), std::vector{json("[1, 'uplink2']")});
    EXPECT_EQ(agent.get(quillTable, "route").at(0).at(1).at("oifs"), json("[1]"));

    // Of a table that was removed, none of it holds.
    agent.operations.change({.op = Agent::Change::Op::del, .path = quillTable});
    EXPECT_TRUE(table->rename(5, "uplink3"));
    EXPECT_TRUE(put("uplink4"));
    EXPECT_EQ(agent.get(quillTable, "oifIndexIntf"), std::vector{json("[1, 'uplink4']")});
}

} // namespace
} // namespace AgentTest
