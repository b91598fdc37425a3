// The agent as a program: its options, its start and its end.
#include "agent/Application.h"

#include "agent/ServiceNotify.h"
#include "tests/agent/AgentProcess.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace AgentTest {
namespace {

constexpr const char* state[] = {
    "vrf red id 3 multicast on",
    "vrf default id 0 multicast on",
    "route red static 10.0.0.1/32 239.1.1.1/32 oifs Ethernet1 Ethernet2",
    "route red sparse 0.0.0.0/0 239.1.1.1/32 oifs Ethernet3",
    "request mroute intf Ethernet5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1",
    "request mroute intf Ethernet5 vrf red vlan 10 source any group 239.1.1.1",
    "request mgroup intf Ethernet5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1"};

// A file of the state, and of one line more.
std::string stateFile(const TemporaryFolder& folder, const std::string& more = {}) {
    std::string text;
    for (const char* line : state)
        text.append(line) += '\n';
    return writeFile(folder, "state.scn", text + more);
}

Json answersOf(RpcClient& client) {
    std::vector<Json> answers = client.result("watch").at("snapshot").elements();
    for (Json& answer : answers) {
        if (answer.at("attribute") == "mrouteResp") {
            std::vector<Json> interfaces = answer.at("value").elements();
            std::sort(interfaces.begin(), interfaces.end());
            answer = answer.with("value", interfaces);
        }
    }
    std::sort(answers.begin(), answers.end());
    return answers;
}

// Options, and what an agent says that refuses them.
struct Wrong {
    std::vector<std::string> options;
    std::string text;
};

TEST(ApplicationTest, WrongOptionsAreNamed) {
    const Wrong cases[] = {
        {{"--nothing"}, "--nothing"},
        {{"word"}, "word"},
        {{"--socket"}, "--socket"},
        {{"--socket", ""}, "--socket: the path is empty"},
        {{"--socket", "/tmp/x", "--stdio"}, " excludes --s"},
        {{"--exit"}, "--exit requires --play"},
        {{"--toggle", "KestrelNatMfibLumen"}, "--toggle: \"KestrelNatMfibLumen\" is not of the form NAME=on"},
        {{"--toggle", "KestrelNatMfibLumen=true"}, "--toggle: KestrelNatMfibLumen can be on or off"},
        {{"--toggle", "Other=on", "--stdio"}, "--toggle: nobody asks for a toggle Other"},
        {{"--trace", "Agent"}, "--trace: \"Agent\" is not of the form FACILITY=LEVEL"},
        {{"--trace", "Agent=10"}, "--trace: the level of Agent runs from 0 to 9"},
        {{"--trace", "Other=1", "--stdio"}, "--trace: there is no trace facility Other"},
        {{"--software-chip=fast"}, "--software-chip: the chip works \"deferred\" or \"sync\""},
    };
    for (const Wrong& wrong : cases) {
        const Finished finished = runAgent(wrong.options);
        EXPECT_EQ(finished.status, 2) << wrong.text;
        EXPECT_NE(finished.err.find(wrong.text), std::string::npos) << finished.err;
        EXPECT_EQ(finished.out, "");
    }
    EXPECT_EQ(runAgent({"--version"}).status, 0);
    const Finished help = runAgent({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* option :
         {"--socket", "--stdio", "--preload", "--play", "--exit", "--kernel", "--software-chip", "--toggle",
          "--toggle-dir", "--trace", "--plugin", "--check"})
        EXPECT_NE(help.out.find(option), std::string::npos) << option;
}

TEST(ApplicationTest, FilesThatDoNotServeEndTheStart) {
    const TemporaryFolder folder;
    const std::string refused =
        stateFile(folder, "request mroute intf Ethernet5 vrf red vlan 10 source any group any\n");
    const std::string odd = writeFile(folder, "odd.scn", "vrf red id 3\ndance\n");
    const std::string typeless = writeFile(folder, "typeless.scn", "schema Nonsense\n");
    const std::string deep =
        writeFile(folder, "deep.scn", "set api/mroute/req mrouteReq " + std::string(20'000, '['));
    const std::string deepConfig = writeFile(folder, "deep.json", R"({"vrfs": )" + std::string(300'000, '['));
    const std::string sourceless = writeFile(folder, "sourceless.scn", "kernel verify\n");
    const std::string config = writeFile(folder, "kernel.json", R"({"vrfs": [{"name": "a/b", "id": 3}]})");
    const Wrong cases[] = {
        {{"--plugin", folder.file("none.so")}, folder.file("none.so")},
        {{"--plugin", KESTREL_LIB_DIR "/libkestrel-records.so"}, "is no plug-in for this agent"},
        {{"--preload", folder.file("none.scn")}, folder.file("none.scn")},
        {{"--preload", odd}, odd + ":2"},
        {{"--preload", refused}, refused + ":8"},
        {{"--play", odd, "--exit"}, odd + ":2"},
        {{"--play", typeless, "--exit"}, typeless + ":1: there is no entity or value type \"Nonsense\""},
        {{"--play", sourceless, "--exit"}, sourceless + ":1: there is no kernel source"},
        {{"--kernel", config, "--plugin", folder.file("none.so")}, config},
        {{"--kernel", folder.file("none.json")}, folder.file("none.json") + ": can't be read"},
        {{"--kernel", folder.file("")}, "is no regular file"},
        {{"--preload", deep}, deep + ":1: KestrelNat::NatMrouteKey takes an object"},
        {{"--play", deep, "--exit"}, deep + ":1: KestrelNat::NatMrouteKey takes an object"},
        {{"--kernel", deepConfig},
         deepConfig + ": is not JSON: arrays and objects nest deeper than 64 levels"},
    };
    for (const Wrong& wrong : cases) {
        for (const bool checkOnly : {false, true}) {
            std::vector<std::string> options = wrong.options;
            options.insert(options.end(), {"--socket", folder.file("s")});
            if (checkOnly)
                options.emplace_back("--check");
            const Finished finished = runAgent(options);
            EXPECT_EQ(finished.status, 1) << wrong.text;
            EXPECT_NE(finished.err.find(wrong.text), std::string::npos) << finished.err;
            EXPECT_EQ(finished.err.find("last trace records"), std::string::npos) << finished.err;
            EXPECT_FALSE(std::filesystem::exists(folder.file("s")));
        }
    }
}

TEST(ApplicationTest, CheckSaysWhatWouldHappenAndLeaves) {
    const TemporaryFolder folder;
    const std::string preload = stateFile(folder);
    writeFile(folder, "KestrelNat.json", R"({"KestrelNatMfibLumen": false})");
    const Finished finished = runAgent({"--check", "--socket", folder.file("s"), "--preload", preload,
                                        "--toggle-dir", folder.file(""), "--software-chip"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    for (const std::string& text :
         {folder.file("s"), preload, std::string("Quill"), std::string("off, from the toggle file")})
        EXPECT_NE(finished.out.find(text), std::string::npos) << finished.out;
    EXPECT_FALSE(std::filesystem::exists(folder.file("s")));
    EXPECT_EQ(finished.out.find("ready"), std::string::npos);
}

TEST(ApplicationTest, TogglesComeFromTheirFileUnlessTheyAreSet) {
    const TemporaryFolder folder;
    const auto sourceWith = [&](std::vector<std::string> options) {
        options.insert(options.end(), {"--toggle-dir", folder.file("")});
        AgentProcess agent(folder, options);
        return agent.client().result("status").at("fibSource").text();
    };
    EXPECT_EQ(sourceWith({}), "lumen");
    writeFile(folder, "KestrelNat.json", R"({"KestrelNatMfibLumen": false})");
    EXPECT_EQ(sourceWith({}), "quill");
    EXPECT_EQ(sourceWith({"--toggle", "KestrelNatMfibLumen=on"}), "lumen");
    writeFile(folder, "KestrelNat.json", "{");
    AgentProcess agent(folder, {"--toggle-dir", folder.file("")});
    EXPECT_EQ(agent.client().result("status").at("fibSource"), "lumen");
    EXPECT_NE(agent.said().find("KestrelNat.json ignored"), std::string::npos) << agent.said();
}

TEST(ApplicationTest, SignalsEndItCleanly) {
    for (const int signal : {SIGTERM, SIGINT}) {
        const TemporaryFolder folder;
        AgentProcess agent(folder, {"--software-chip", "--trace", "Agent=6"});
        RpcClient client = agent.client();
        client.run("vrf red id 3 multicast on");
        agent.signal(SIGHUP); // nothing to read again
        client.result("status");
        agent.signal(signal);
        EXPECT_EQ(agent.wait(), 0);
        EXPECT_FALSE(std::filesystem::exists(agent.socket()));
        EXPECT_TRUE(agent.said().ends_with("Application::end done\n")) << agent.said();
    }
}

TEST(ApplicationTest, ALiveAgentsSocketIsRespectedAndADeadOnesReplaced) {
    const TemporaryFolder folder;
    AgentProcess first(folder);
    const Finished second = runAgent({"--socket", first.socket()});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.err.find(first.socket()), std::string::npos) << second.err;
    first.client().result("status");

    first.signal(SIGKILL);
    first.wait();
    EXPECT_TRUE(std::filesystem::exists(first.socket()));
    const AgentProcess third(folder);
    third.client().result("status");
}

TEST(ApplicationTest, KilledAndStartedOverItsStateItAnswersAsIfItHadStartedAfresh) {
    for (const char* source : {"on", "off"}) {
        const TemporaryFolder folder;
        const std::vector<std::string> bare{"--software-chip=sync", "--toggle",
                                            std::string("KestrelNatMfibLumen=") + source};
        std::vector<std::string> preloaded = bare;
        preloaded.insert(preloaded.end(), {"--preload", stateFile(folder)});

        AgentProcess fresh(folder, bare);
        RpcClient client = fresh.client();
        for (const char* line : state)
            client.run(line);
        const Json expected = answersOf(client);
        EXPECT_EQ(expected.size(), 3U);
        fresh.signal(SIGKILL);
        fresh.wait();

        AgentProcess again(folder, preloaded);
        RpcClient other = again.client();
        EXPECT_EQ(answersOf(other), expected);
        // And it follows changes as the first one did.
        const Json changed = other.run("route red static 10.0.0.1/32 239.1.1.1/32 oifs Ethernet9");
        EXPECT_EQ(changed.at("answers").size(), 2U);
    }
}

TEST(ApplicationTest, OnStandardInputAndOutputItServesOneClientToItsEnd) {
    const Finished finished = runAgent(
        {"--stdio"},
        "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"status\"}\n"
        "{\"jsonrpc\":\"2.0\",\"id\":2,\"method\":\"command\",\"params\":{\"line\":\"show vrfs\"}}\n");
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.err, "ready\n");
    EXPECT_EQ(std::count(finished.out.begin(), finished.out.end(), '\n'), 2);
    EXPECT_NE(finished.out.find("\"id\":2,\"result\""), std::string::npos) << finished.out;
}

// What a service manager hears on its socket; empty: nothing.
std::string heard(const Agent::Fd& manager) {
    std::array<char, 256> text{};
    const ssize_t count = ::recv(manager.get(), text.data(), text.size(), MSG_DONTWAIT);
    return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
}

// What has come through a pipe that is read without waiting.
std::string takenFrom(const Agent::Fd& pipe) {
    std::array<char, 65536> block{};
    std::string text;
    for (ssize_t count = 0; (count = ::read(pipe.get(), block.data(), block.size())) > 0;)
        text.append(block.data(), static_cast<std::size_t>(count));
    return text;
}

TEST(ApplicationTest, WhatNobodyReadsItDropsAndCountsAndServesOn) {
    const TemporaryFolder folder;
    ASSERT_EQ(::mkfifo(folder.file("agent.err").c_str(), 0600), 0);
    const Agent::Fd errors(::open(folder.file("agent.err").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    std::string lines;
    for (int i = 0; i < 20'000; ++i)
        lines += "# a line\n";
    AgentProcess agent(folder, {"--trace", "Agent=9", "--play", writeFile(folder, "long.scn", lines)});
    RpcClient client = agent.client();
    const auto dropped = [&] { return client.result("status").at("counters").at("linesDropped").number(); };
    const auto ofThePlay = dropped();
    EXPECT_GT(ofThePlay, 5'000U); // of standard output: a pipe has 64 KiB, and one read may have emptied it
    auto all = ofThePlay;
    for (int i = 0; i < 5'000 && all == ofThePlay; ++i)
        all = dropped();
    EXPECT_GT(all, ofThePlay); // of standard error
    EXPECT_NE(takenFrom(errors).find("ControlService::call method=status"), std::string::npos);
    EXPECT_EQ(dropped(), all);
    EXPECT_EQ(dropped(), all);
    const std::string said = takenFrom(errors);
    const std::string note = std::to_string(all - ofThePlay) + " lines were dropped here\n";
    EXPECT_TRUE(said.starts_with("kestrel-agent: " + note)) << said;
    EXPECT_EQ(said.rfind("kestrel-agent: "), 0U) << "it is said once";
    EXPECT_EQ(agent.stop(), 0);
}

TEST(ApplicationTest, StartedWithoutStandardStreamsItPutsTheNullDeviceInTheirPlace) {
    const TemporaryFolder folder;
    const Agent::Fd manager(boundSocket(SOCK_DGRAM, folder.file("manager")));
    for (const std::vector<int>& closed : {std::vector{0, 1, 2}, std::vector{1, 2}}) {
        ::setenv("NOTIFY_SOCKET", folder.file("manager").c_str(), 1);
        const pid_t agent = ::fork();
        if (agent == 0) {
            for (const int fd : closed)
                ::close(fd);
            ::execl(KESTREL_BIN_DIR "/kestrel-agent", "kestrel-agent", "--socket", folder.file("s").c_str(),
                    "--trace", "Agent=9", nullptr);
            ::_exit(127);
        }
        ::unsetenv("NOTIFY_SOCKET");
        pollfd ready{.fd = manager.get(), .events = POLLIN, .revents = 0};
        EXPECT_EQ(::poll(&ready, 1, 20'000), 1);
        EXPECT_EQ(heard(manager), "READY=1");
        for (const int fd : closed)
            EXPECT_EQ(
                std::filesystem::read_symlink("/proc/" + std::to_string(agent) + "/fd/" + std::to_string(fd)),
                "/dev/null");
        RpcClient(folder.file("s")).result("status");
        ::kill(agent, SIGTERM);
        EXPECT_EQ(endOf(agent), 0);
        EXPECT_EQ(heard(manager), "STOPPING=1");
    }
}

TEST(ApplicationTest, APlayThatFailsSaysBothSidesAndItsStatusTells) {
    const TemporaryFolder folder;
    const std::string unmet = stateFile(
        folder, "expect mroute intf Ethernet5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1 = Ethernet9\n");
    const Finished finished = runAgent({"--socket", folder.file("s"), "--play", unmet, "--exit"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.err.find(unmet + ":8"), std::string::npos) << finished.err;
    EXPECT_NE(finished.err.find("Ethernet9"), std::string::npos) << finished.err;
    EXPECT_NE(finished.err.find("Ethernet1"), std::string::npos) << finished.err;

    // Without --exit it stays.
    AgentProcess agent(folder, {"--play", unmet});
    EXPECT_EQ(agent.client().result("status").at("ready").at("mrouteSmReady"), true);
    EXPECT_EQ(agent.stop(), 0);
}

TEST(ApplicationTest, TheServiceManagerIsToldWhenItIsReadyAndWhenItStops) {
    const TemporaryFolder folder;
    const std::string name = folder.file("manager");
    const Agent::Fd manager(boundSocket(SOCK_DGRAM, name));
    ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
    AgentProcess agent(folder);
    ::unsetenv("NOTIFY_SOCKET");
    agent.client().result("status"); // it is told right after it has printed that it is ready
    EXPECT_EQ(heard(manager), "READY=1");
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_EQ(heard(manager), "STOPPING=1");
}

TEST(ServiceNotify, ReachesAnAbstractNameAndNobodyWhoDidNotAsk) {
    const TemporaryFolder folder;
    const auto notifies = [](const std::string& name) {
        ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
        const bool notified = Agent::notifyService("READY=1");
        ::unsetenv("NOTIFY_SOCKET");
        return notified;
    };
    const std::string abstractName = "@" + folder.file("manager");
    const Agent::Fd manager(boundSocket(SOCK_DGRAM, abstractName));
    EXPECT_TRUE(notifies(abstractName));
    EXPECT_EQ(heard(manager), "READY=1");
    for (const char* name : {"", "relative", "/absent/manager"})
        EXPECT_FALSE(notifies(name)) << name;
    EXPECT_FALSE(notifies("/" + std::string(sizeof(sockaddr_un), 'x')));
    EXPECT_FALSE(Agent::notifyService("READY=1"));
}

} // namespace
} // namespace AgentTest
