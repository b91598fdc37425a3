// watch and wait against a fake agent that tells changes.
#include "tests/ctl/FakeAgent.h"

#include "ctl/CommandLine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <pthread.h>
#include <string>
#include <thread>

namespace CtlTest {
namespace {

using namespace std::chrono_literals;

Json change(int seq, const Json& value) {
    return {{"seq", seq},
            {"path", "api/mgroup/resp"},
            {"attribute", "mgroupId"},
            {"key",
             {{"intf", "Ethernet5"},
              {"vrfId", 3},
              {"vlanId", 10},
              {"sourceIp", "10.0.0.1"},
              {"groupIp", "239.1.1.1"},
              {"type", 1}}},
            {"value", value}};
}

std::string line(const std::string& value) {
    return "mgroup (10.0.0.1, 239.1.1.1) in 3 for Ethernet5 vlan 10: " + value + "\n";
}

TEST(Watch, PrintsTheAnswersThenALineAChangeAndSaysHowToGoOn) {
    FakeAgent agent([&agent](const Json& request) {
        const Json begin{{"instance", "i-1"}, {"seq", 7}, {"snapshot", {change(0, 16)}}};
        // The last one is cut: the agent was killed while it wrote.
        agent.tell(resultLine(request, begin) + changedLine(change(8, 17)) + changedLine(change(9, nullptr)) +
                   changedLine(change(10, 18)).substr(0, 40));
        return std::string();
    });
    const Outcome run = runCtl(agent, {"watch"});
    EXPECT_EQ(run.status, Ctl::exitFailed);
    EXPECT_EQ(run.out, line("16") + line("17") + line("gone"));
    EXPECT_EQ(run.err, "kestrelctl: go on with watch --since i-1:9\nkestrelctl: the agent at " +
                           agent.path() + " is lost: it closed the connection\n");
    EXPECT_EQ(agent.requests().at(0).at("params").dump(), "{}");

    const Outcome json = runCtl(agent, {"watch", "--json"});
    EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '\n'), 3);
    EXPECT_EQ(Json::parse(json.out.substr(0, json.out.find('\n'))).at("seq"), 7);
}

TEST(Watch, GoesOnWhereItEnded) {
    Json begin{{"instance", "a:b"}, {"seq", 9}, {"changes", {change(9, 17)}}};
    FakeAgent agent([&](const Json& request) {
        agent.tell(resultLine(request, begin));
        return std::string();
    });
    const Outcome known = runCtl(agent, {"watch", "--since", "a:b:8"});
    EXPECT_EQ(agent.requests().back().at("params").dump(), R"({"since":{"instance":"a:b","seq":8}})");
    EXPECT_EQ(known.out, line("17"));
    EXPECT_EQ(known.err.find("kestrelctl: go on with watch --since a:b:9"), 0U);

    begin = {{"instance", "c"}, {"seq", 2}, {"lost", true}, {"snapshot", {change(0, 18)}}};
    const Outcome lost = runCtl(agent, {"watch", "--since", "a:b:9"});
    EXPECT_EQ(lost.out, line("18"));
    EXPECT_NE(lost.err.find("are not known any more"), std::string::npos);
    EXPECT_NE(lost.err.find("watch --since c:2"), std::string::npos);
}

TEST(Watch, EndsWellWhenItIsInterrupted) {
    FakeAgent agent([](const Json& request) {
        return resultLine(request, {{"instance", "i"}, {"seq", 0}, {"snapshot", Json::array()}});
    });
    Outcome run;
    std::thread watching([&] { run = runCtl(agent, {"watch"}); });
    ASSERT_TRUE(agent.awaitRequests(1));
    agent.tell(changedLine(change(1, 17)));
    std::this_thread::sleep_for(20ms);
    ::pthread_kill(watching.native_handle(), SIGINT);
    watching.join();
    EXPECT_EQ(run.status, Ctl::exitDone);
    EXPECT_EQ(run.out, line("17"));
    EXPECT_EQ(run.err, "kestrelctl: go on with watch --since i:1\n");
}

/// An agent whose one expectation holds from the change `holdsAt` on; each failing look is followed by
/// `next`.
class WaitTest : public testing::Test {
  protected:
    std::string answer(const Json& request) {
        if (request.at("method") == "watch")
            return resultLine(request, {{"instance", "i"}, {"seq", 0}, {"snapshot", Json::array()}});
        ++looks;
        if (changes >= holdsAt)
            return resultLine(request, {{"result", {{"held", true}}}, {"text", ""}});
        return errorLine(request, {{"code", -32001},
                                   {"message", "mgroup: expected 17, but it is absent"},
                                   {"data", {{"expected", "17"}, {"actual", "absent"}}}}) +
               next();
    }

    std::vector<std::string> wait(const std::string& timeout) const {
        return {"wait", "mgroup", "intf", "Ethernet5", "=", "17", "timeout", timeout};
    }

    std::function<std::string()> next = [] { return std::string(); };
    std::atomic<int> changes = 0;
    std::atomic<int> looks = 0;
    int holdsAt = 0;
    FakeAgent agent{[this](const Json& request) { return answer(request); }};
};

TEST_F(WaitTest, LooksAgainAfterEachChangeAndNotInBetween) {
    holdsAt = 3;
    std::thread telling([&] {
        for (int i = 1; i <= 3; ++i) {
            EXPECT_TRUE(agent.awaitRequests(static_cast<std::size_t>(i) + 1));
            std::this_thread::sleep_for(30ms);
            ++changes;
            agent.tell(changedLine(change(i, i)));
        }
    });
    const Outcome run = runCtl(agent, wait("10s"));
    telling.join();
    EXPECT_EQ(run.status, Ctl::exitDone) << run.err;
    EXPECT_EQ(looks, 4);
    EXPECT_EQ(agent.requests().at(1).at("params").at("line"), "expect mgroup intf Ethernet5 = 17");
    EXPECT_EQ(runCtl(agent, {"wait", "mgroup", "=", "17", "--json"}).out, "{\"held\":true}\n") << "at once";
}

TEST_F(WaitTest, LooksOnceForChangesThatCameTogether) {
    holdsAt = 100;
    next = [this] {
        std::string all;
        while (changes < holdsAt)
            all += changedLine(change(++changes, 16));
        return all;
    };
    EXPECT_EQ(runCtl(agent, wait("10s")).status, Ctl::exitDone);
    EXPECT_LE(looks, 3) << "they may arrive in two parts";
}

TEST_F(WaitTest, ThatRanOutIsStatus3WithBothSides) {
    holdsAt = 1;
    const Outcome run = runCtl(agent, wait("60ms"));
    EXPECT_EQ(run.status, Ctl::exitTimedOut);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "kestrelctl: timed out after 60ms: mgroup: expected 17, but it is absent\n");
    EXPECT_EQ(looks, 1) << "it does not poll";
}

TEST_F(WaitTest, ChangesWithoutEndDoNotDrawItOut) {
    holdsAt = 1;
    next = [] { return changedLine(change(1, 16)); };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(runCtl(agent, wait("60ms")).status, Ctl::exitTimedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TEST(Wait, WhatCanNotHoldIsAnErrorAtOnce) {
    const FakeAgent agent([](const Json& request) {
        return request.at("method") == "watch"
                   ? resultLine(request, Json::object())
                   : errorLine(request, {{"code", -32602}, {"message", "there is no VRF 'rde'"}});
    });
    const Outcome run = runCtl(agent, {"wait", "mroute", "vrf", "rde", "=", "none", "timeout", "10s"});
    EXPECT_EQ(run.status, Ctl::exitFailed);
    EXPECT_EQ(run.err, "kestrelctl: there is no VRF 'rde'\n");
}

} // namespace
} // namespace CtlTest
