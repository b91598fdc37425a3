// Control methods through the real socket of a real agent. What one request gives or why it is refused is in the
// transcripts (TranscriptsTest.cpp).
#include "tests/agent/AgentProcess.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace AgentTest {
namespace {

const char* const fib = "lumen/multicast/fib/ipv4/user/red";

Json requestKey(unsigned intf = 5, const std::string& group = "239.1.1.1") {
    return json("{'intf': %, 'vrfId': 3, 'vlanId': 10, 'sourceIp': '10.0.0.1', 'groupIp': %, 'type': %}",
                "Ethernet" + std::to_string(intf), group, "mrouteRequest");
}

Json requestChange(const Json& key) {
    return json("{'op': 'set', 'path': 'api/mroute/req', 'attribute': 'mrouteReq', 'key': %}", key);
}

Json routeChange(const Json& intfs) {
    return json("{'op': 'set', 'path': %, 'attribute': 'route', 'value': {'intf': %},"
                " 'key': {'source': '10.0.0.1/32', 'group': '239.1.1.1/32'}}",
                fib, intfs);
}

class ControlServiceTest : public testing::Test {
  protected:
    ControlServiceTest() { client.run("vrf red id 3 multicast on"); }

    TemporaryFolder folder;
    AgentProcess agent{folder, {"--toggle", "KestrelNatMfibLumen=on", "--software-chip"}};
    RpcClient client{agent.client()};

    Json apply(const std::vector<Json>& changes) {
        return client.result("apply", json("{'changes': %}", changes));
    }
};

TEST_F(ControlServiceTest, ADryRunForetellsTheVeryAnswersAndChangesNothing) {
    std::vector<Json> changes{routeChange(json("['Ethernet1', 'Ethernet9']")),
                              requestChange(requestKey(3, "239.9.9.9"))};
    for (unsigned intf = 0; intf < 50; ++intf)
        changes.push_back(requestChange(requestKey(intf)));
    const Json watched = client.result("watch");
    const Json foretold = client.result("apply", json("{'changes': %, 'dryRun': true}", changes));
    EXPECT_EQ(foretold.at("answers").size(), 51U);
    EXPECT_EQ(client.result("get", json("{'path': 'api/mroute/req'}")), json("{'mrouteReq': []}"));
    EXPECT_EQ(client.result("watch").at("seq"), watched.at("seq"));
    EXPECT_EQ(apply(changes), foretold);

    // A refusal too: of a word that nests without end.
    const Json deep = json("{'lines': [%]}", "set api/mroute/req mrouteReq " + std::string(20'000, '['));
    const Json refused = client.error("apply", deep);
    EXPECT_EQ(refused.at("message"), "line 1: KestrelNat::NatMrouteKey takes an object, not a string");
    EXPECT_EQ(client.error("apply", deep.with("dryRun", true)), refused);
}

// A dry run whose child takes until it is ended: a list of changes that is refused by none, over and over.
std::string endless() {
    std::string lines;
    for (int i = 0; i < 30'000; ++i)
        lines += (i == 0 ? "" : ",") + std::string(R"("vrf red multicast off","vrf red multicast on")");
    return R"({"jsonrpc":"2.0","id":1,"method":"apply","params":{"dryRun":true,"lines":[)" + lines + "]}}\n";
}

std::size_t childrenOf(pid_t process) {
    const std::string name = std::to_string(process);
    std::ifstream file("/proc/" + name + "/task/" + name + "/children");
    return static_cast<std::size_t>(
        std::distance(std::istream_iterator<pid_t>(file), std::istream_iterator<pid_t>()));
}

template <class Condition>
bool becomes(Condition condition) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(5); // before a child's own end
    while (!condition() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return condition();
}

// Two at a time, beside everything else; each ends with the client that asked for it, and with the agent.
TEST_F(ControlServiceTest, DryRunsGoOnBesideTheLoop) {
    for (unsigned intf = 0; intf < 2000; ++intf)
        client.result("set", requestChange(requestKey(intf)).with("op", {}));
    std::optional<RpcClient> askers[] = {agent.client(), agent.client(), agent.client()};
    for (auto& asker : askers)
        asker->send(endless());
    EXPECT_TRUE(becomes([&] { return childrenOf(agent.pid()) == 2; }));
    client.result("status");
    EXPECT_EQ(childrenOf(agent.pid()), 2U) << "somebody waited for them";
    askers[0].reset();
    askers[2].reset();
    EXPECT_TRUE(becomes([&] { return childrenOf(agent.pid()) == 1; }));
    EXPECT_EQ(client.error("apply", json("{'lines': ['', 'dance'], 'dryRun': true}")).at("data").at("line"),
              2U);
    EXPECT_EQ(childrenOf(agent.pid()), 1U);
    EXPECT_EQ(agent.stop(), 0);
}

TEST_F(ControlServiceTest, TheSchemaTellsWhatRequestsAreHeldAgainst) {
    const Json schema = client.result("schema");
    EXPECT_EQ(client.run("schema"), schema);
    EXPECT_EQ(schema.at("methods").size(), 12U);
    for (const Json& method : schema.at("methods").elements()) {
        for (const Json& parameter : method.at("parameters").elements()) {
            const Json params = json(R"({%: null})", parameter.at("name"));
            const Json error = client.error(method.at("name").text(), params);
            EXPECT_TRUE(parameter.at("type") == "any" || error.at("data").at("field") == parameter.at("name"))
                << error;
        }
    }
    // Every type that is named is described.
    std::set<Json> types;
    for (const char* list : {"entityTypes", "valueTypes"})
        for (const Json& type : schema.at(list).elements())
            EXPECT_TRUE(types.insert(type.at("name")).second) << type;
    for (const Json& path : schema.at("paths").elements())
        EXPECT_TRUE(types.contains(path.at("type"))) << path;
    for (const Json& type : schema.at("entityTypes").elements())
        for (const Json& attribute : type.at("attributes").elements())
            for (const char* kind : {"keyType", "valueType", "memberType"})
                EXPECT_TRUE(!attribute.contains(kind) || types.contains(attribute.at(kind))) << attribute;
}

TEST_F(ControlServiceTest, StatusCountsWhatThereIs) {
    apply({routeChange(json("['Ethernet1']")), requestChange(requestKey())});
    client.error("apply", json("{'changes': [%]}", requestChange(requestKey().with("vlanId", 0))));
    client.result("watch");
    const RpcClient other(agent.socket());

    const Json status = client.result("status");
    EXPECT_TRUE(holds(
        json("{'fibSource': 'lumen', 'sources': ['software-chip'], 'tables': {'refusedRows': 0},"
             " 'counters': {'changes': 6, 'refused': 1, 'watchers': 1, 'answerSeq': 1, 'interfaceNames': 2,"
             " 'interfaceNamesMost': 65536, 'interfaceNamesSwept': 0, 'interfaceNameSweeps': 0}}"),
        status))
        << status;
    EXPECT_EQ(status.at("toggles").at(0).at("origin"), "override");
    EXPECT_EQ(status.at("ready"), json("{'mrouteSmReady': true, 'mgroupSmReady': true}"));
    EXPECT_EQ(status.at("sizes").at("api/mroute/resp").at("mrouteResp"), 1);
    EXPECT_EQ(status.at("sizes").at("lumen/multicast/fib/ipv4/TYPE/VRF"),
              json("{'entities': 2, 'route': 1}"));
    const Json counters = status.at("counters");
    EXPECT_GT(counters.at("traceNext").number(), counters.at("traceOldest").number());
    EXPECT_FALSE(status.at("version").text().empty());
    for (const char* line : {"status", "show status"}) { // the same, but for what counts on
        const Json shown = client.run(line);
        EXPECT_EQ(shown.with("counters", {}).with("uptimeSeconds", {}),
                  status.with("counters", {}).with("uptimeSeconds", {}));
    }
}

TEST_F(ControlServiceTest, TraceShowsAndSetsLevelsAndShowsTheRing) {
    EXPECT_GE(client.result("trace").at("levels").size(), 3U);
    client.result("trace", json("{'facility': 'KestrelNatMulticastSm', 'level': 8}"));
    apply({requestChange(requestKey())});
    EXPECT_NE(agent.said().find("handleMrouteReq adding request"), std::string::npos) << agent.said();
    const Json levels = client.result("trace", json("{'facility': 'KestrelNatMulticastSm'}")).at("levels");
    ASSERT_EQ(levels.size(), 1U);
    EXPECT_EQ(levels.at(0).at("level"), 8);

    const Json records = client.result("trace", json("{'last': 3}")).at("records");
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records.at(2).at("message"), "ControlService::call method=trace");
    EXPECT_EQ(records.at(2).at("n").number(), records.at(1).at("n").number() + 1);
    for (const char* part : {"n", "level", "facility", "file", "line", "function", "message"})
        EXPECT_TRUE(records.at(0).contains(part)) << part;

    // More than a page: the first of them, then those behind them.
    for (int i = 0; i < 600; ++i)
        client.result("unwatch");
    const Json page = client.result("trace", json("{'last': 600}"));
    EXPECT_EQ(page.at("records").size(), 512U);
    EXPECT_EQ(page.at("more"), page.at("records").at(511).at("n"));
    const Json rest = client.result("trace", json("{'last': 88, 'after': %}", page.at("more")));
    ASSERT_EQ(rest.at("records").size(), 88U);
    EXPECT_EQ(rest.at("records").at(0).at("n").number(), page.at("more").number() + 1);
    EXPECT_FALSE(rest.contains("more"));
    EXPECT_EQ(client.result("trace", json("{'last': 1, 'after': %}", UINT64_MAX)).at("records").size(), 0U);
}

} // namespace
} // namespace AgentTest
