// The kernel source in a real agent: what reaches the answers, and what its configuration does while it runs.
#include "records/IpAddr.h"
#include "tests/agent/AgentProcess.h"
#include "tests/kernel/MfcFeeder.h"
#include "tests/kernel/NetNamespace.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace Agent::Kernel::Test {
namespace {

using AgentTest::AgentProcess;
using AgentTest::json;
using AgentTest::Json;
using AgentTest::RpcClient;
using AgentTest::TemporaryFolder;
using AgentTest::writeFile;

constexpr std::uint32_t routes = 20'000;

MfcKey numbered(std::uint32_t number) {
    return {.source = 0x0a090102 + (number >> 16), .group = 0xef020000 + (number & 0xffff)};
}

// Asks every 20 ms, 10 s at most, until the condition holds.
template <class Condition>
bool becomes(Condition condition) {
    using namespace std::chrono_literals;
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

// Posts or withdraws a request for each route.
void requestAll(RpcClient& client, const char* operation) {
    constexpr std::uint32_t atOnce = 5000; // they fit one line
    for (std::uint32_t first = 0; first < routes; first += atOnce) {
        std::vector<Json> changes;
        for (std::uint32_t i = first; i < first + atOnce; ++i)
            changes.push_back(
                json("{'op': %, 'path': 'api/mroute/req', 'attribute': 'mrouteReq', 'key': {"
                     "'intf': 'Ethernet5', 'vrfId': 0, 'vlanId': 10, 'sourceIp': %, 'groupIp': %}}",
                     operation, L3::IpAddr(numbered(i).source).stringValue(),
                     L3::IpAddr(numbered(i).group).stringValue()));
        client.result("apply", json("{'changes': %}", changes));
    }
}

// The interfaces of each answer that has any, by group.
std::map<std::string, std::string> answers(RpcClient& client) {
    std::map<std::string, std::string> found;
    Json params = json("{'path': 'api/mroute/resp', 'attribute': 'mrouteResp', 'limit': 1000}");
    for (;;) {
        const std::vector<Json> page = client.result("get", params).elements();
        if (page.empty())
            return found;
        params = params.with("after", page.back().at("key"));
        for (const Json& answer : page) {
            std::string interfaces;
            for (const Json& name : answer.at("value").elements())
                interfaces += name.text() + " ";
            if (!interfaces.empty())
                found[answer.at("key").at("groupIp").text()] = interfaces;
        }
    }
}

class KernelAgentTest : public testing::TestWithParam<const char*> {};

TEST_P(KernelAgentTest, AfterLostEventsAnswersAreAsIfAskedAnew) {
    ENTER_NET_NAMESPACE();
    makeInterfaces();
    MfcFeeder feeder;
    for (int i = 1; i <= 4; ++i)
        feeder.vifIs(i - 1, "e" + std::to_string(i));
    const TemporaryFolder folder;
    ::setenv("KESTREL_KERNEL_RCVBUF", "16384", 1);
    const AgentProcess agent(folder,
                             {"--toggle", std::string("KestrelNatMfibLumen=") + GetParam(), "--kernel",
                              writeFile(folder, "kernel.json", R"({"vrfs": [{"name": "default"}]})")});
    ::unsetenv("KESTREL_KERNEL_RCVBUF");
    RpcClient client = agent.client();
    const auto state = [&] { return client.result("kernel"); };
    ASSERT_TRUE(becomes([&] { return state().at("vrfs").at(0).at("multicast") == true; }));
    requestAll(client, "set");

    // Bursts beyond the buffer, and pauses in which events come through.
    const auto pauseAt = [](std::uint32_t i) {
        if (i % 500 == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    };
    for (std::uint32_t i = 0; i < routes; ++i) {
        feeder.routeIs(numbered(i), 0, {1});
        pauseAt(i);
    }
    // A quarter goes, a quarter changes, a quarter changes and changes back.
    for (std::uint32_t i = 0; i < routes; ++i) {
        pauseAt(i);
        if (i % 4 == 0)
            feeder.routeDel(numbered(i));
        else if (i % 4 != 3)
            feeder.routeIs(numbered(i), 0, {2, 3});
        if (i % 4 == 2)
            feeder.routeIs(numbered(i), 0, {1});
    }
    ASSERT_TRUE(becomes([&] {
        const Json now = state();
        return now.at("synced") == true && now.at("vrfs").at(0).at("resyncWanted") == false &&
               now.at("vrfs").at(0).at("rows") == routes * 3 / 4;
    }));
    EXPECT_GT(state().at("counters").at("overruns").number(), 0U);
    const Json verified = client.result("kernel", json("{'verify': true}"));
    EXPECT_EQ(verified.at("complete"), true);
    EXPECT_EQ(verified.at("differences"), json("[]"));
    EXPECT_EQ(verified.at("rows"), routes * 3 / 4);

    const auto followed = answers(client);
    EXPECT_EQ(followed.size(), routes * 3 / 4);
    EXPECT_EQ(followed.at(L3::IpAddr(numbered(1).group).stringValue()), "e3 e4 ");
    EXPECT_EQ(followed.at(L3::IpAddr(numbered(2).group).stringValue()), "e2 ");
    requestAll(client, "del");
    EXPECT_TRUE(answers(client).empty());
    requestAll(client, "set");
    EXPECT_TRUE(answers(client) == followed);
}

// A kernel takes names that the agent doesn't, and any bytes in them.
TEST_P(KernelAgentTest, RoutesWaitWhileAnInterfaceHasANameThatIsRefused) {
    ENTER_NET_NAMESPACE();
    makeInterfaces();
    MfcFeeder feeder;
    for (int i = 1; i <= 4; ++i)
        feeder.vifIs(i - 1, "e" + std::to_string(i));
    feeder.routeIs(numbered(0), 0, {1});
    const TemporaryFolder folder;
    const AgentProcess agent(folder,
                             {"--toggle", std::string("KestrelNatMfibLumen=") + GetParam(), "--kernel",
                              writeFile(folder, "kernel.json", R"({"vrfs": [{"name": "default"}]})")});
    RpcClient client = agent.client();
    const auto rename = [](const std::string& from, const std::string& to) {
        shell("ip link set \"$(printf '" + from + "')\" name \"$(printf '" + to + "')\"");
    };
    // Interfaces of the routes, and how many wait.
    const auto shows = [&](std::uint64_t waiting, const std::vector<std::string>& interfaces) {
        std::vector<std::string> shown;
        return becomes([&] {
            const Json vrf = client.result("kernel").at("vrfs").at(0);
            shown.clear();
            for (const Json& row : client.result("show", json("{'what': 'routes'}")).at("rows").elements())
                shown.push_back(row.at("oifs").dump());
            return vrf.at("pendingCount") == waiting && shown == interfaces;
        });
    };
    for (const char* name : {"e2", "e3"})
        shell(std::string("ip link set ") + name + " down");
    EXPECT_TRUE(shows(0, {R"(["e2"])"}));
    rename("e2", R"(x\001y)");
    EXPECT_TRUE(shows(1, {R"(["e2"])"})) << "the row keeps the name before";
    rename("e3", R"(\002)");
    feeder.routeIs(numbered(1), 0, {2});
    EXPECT_TRUE(shows(2, {R"(["e2"])"})) << "a route that never had a name the agent takes";
    const Json vrf = client.result("kernel").at("vrfs").at(0);
    EXPECT_NE(vrf.at("pending").at(1).at("why").text().find("a control byte"), std::string::npos) << vrf;
    EXPECT_EQ(vrf.at("vifs").dump(), R"(["e1","x\u0001y","\u0002","e4"])");
    EXPECT_EQ(client.result("kernel", json("{'verify': true}")).at("differenceCount"), 2);

    rename(R"(x\001y)", "up2");
    EXPECT_TRUE(shows(1, {R"(["up2"])"}));
    rename(R"(\002)", "up3");
    EXPECT_TRUE(shows(0, {R"(["up2"])", R"(["up3"])"}));
}

INSTANTIATE_TEST_SUITE_P(BothSources, KernelAgentTest, testing::Values("on", "off"),
                         [](const auto& toggle) { return std::string("Lumen_") + toggle.param; });

TEST(KernelAgentConfigTest, IsReadAgainOnHupAndAFaultyOneChangesNothing) {
    ENTER_NET_NAMESPACE();
    makeInterfaces();
    MfcFeeder feeder(100);
    feeder.vifIs(0, "e1");
    feeder.vifIs(1, "e2");
    feeder.routeIs(numbered(0), 0, {1});
    const TemporaryFolder folder;
    const std::string file = writeFile(folder, "kernel.json", R"({"vrfs": [{"name": "default"}]})");
    const AgentProcess agent(folder, {"--kernel", file});
    RpcClient client = agent.client();
    const auto rows = [&] {
        std::map<std::string, std::uint64_t> found;
        for (const Json& vrf : client.result("kernel").at("vrfs").elements())
            found[vrf.at("vrf").text()] = vrf.at("rows").number();
        return found;
    };
    const std::map<std::string, std::uint64_t> both{{"default", 0}, {"red", 1}};
    EXPECT_TRUE(becomes([&] { return rows() == std::map<std::string, std::uint64_t>{{"default", 0}}; }));

    writeFile(folder, "kernel.json",
              R"({"vrfs": [{"name": "default"}, {"name": "red", "id": 3, "table": 100}]})");
    agent.signal(SIGHUP);
    EXPECT_TRUE(becomes([&] { return rows() == both; }));

    writeFile(folder, "kernel.json", R"({"vrfs": [{"name": "blue", "id": 16777216, "table": 100}]})");
    agent.signal(SIGHUP);
    EXPECT_TRUE(becomes([&] { return agent.said().find(file) != std::string::npos; }));
    EXPECT_NE(agent.said().find("blue"), std::string::npos) << agent.said();
    writeFile(folder, "kernel.json", std::string(300'000, '['));
    agent.signal(SIGHUP);
    EXPECT_TRUE(becomes([&] { return agent.said().find(file + ": is not JSON") != std::string::npos; }));
    EXPECT_EQ(rows(), both);
    feeder.routeIs(numbered(1), 0, {1});
    EXPECT_TRUE(becomes([&] { return rows().at("red") == 2; })) << "it is still followed";

    writeFile(folder, "kernel.json", R"({"vrfs": [{"name": "default"}]})");
    agent.signal(SIGHUP);
    EXPECT_TRUE(becomes([&] { return rows() == std::map<std::string, std::uint64_t>{{"default", 0}}; }));
}

// The comparison is answered later, and what stands behind it in a batch after it; the input ends at once.
TEST(KernelAgentConfigTest, AComparisonOnStandardInputIsAnsweredBeforeTheEnd) {
    ENTER_NET_NAMESPACE();
    const TemporaryFolder folder;
    const AgentTest::Finished finished = AgentTest::runAgent(
        {"--stdio", "--kernel", writeFile(folder, "kernel.json", R"({"vrfs": [{"name": "default"}]})")},
        R"([{"jsonrpc":"2.0","id":1,"method":"kernel","params":{"verify":true}},)"
        R"({"jsonrpc":"2.0","id":2,"method":"kernel"},)"
        R"({"jsonrpc":"2.0","id":3,"method":"kernel","params":{"verify":true,"odd":1}}])"
        "\n");
    EXPECT_EQ(finished.status, 0);
    const Json answers = Json::parse(finished.out);
    ASSERT_EQ(answers.size(), 3U) << finished.out;
    EXPECT_EQ(answers.at(0).at("result").at("complete"), true);
    EXPECT_EQ(answers.at(1).at("result").at("synced"), true) << "it came after the comparison";
    EXPECT_EQ(answers.at(2).at("error").at("code"), -32602);
}

} // namespace
} // namespace Agent::Kernel::Test
