// watch and wait against a fake agent that tells changes.
#include "tests/ctl/FakeAgent.h"

#include "ctl/Watch.h"

#include <gtest/gtest.h>

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

// A change as the agent tells it; its text tells people `value`.
std::string change(int seq, const std::string& value) {
    return R"({"seq":)" + std::to_string(seq) + R"(,"path":"api/mgroup/resp","value":)" + value +
           R"(,"text":"answer: )" + value + "\"}";
}

const std::string nothingYet = R"({"instance":"i","seq":0,"snapshot":[]})";

TEST(Watch, PrintsTheAnswersThenALineAChangeAndSaysHowToGoOn) {
    FakeAgent agent([&agent](const Request& request) {
        const std::string begin = R"({"instance":"i-1","seq":7,"snapshot":[)" + change(0, "16") + "]}";
        // The last one is cut: the agent was killed while it wrote.
        agent.tell(resultLine(request, begin) + changedLine(change(8, "17")) +
                   changedLine(change(9, "null")) + changedLine(change(10, "18")).substr(0, 40));
        return std::string();
    });
    const Outcome run = runCtl(agent, {"watch"});
    EXPECT_EQ(run.status, Ctl::exitFailed);
    EXPECT_EQ(run.out, "answer: 16\nanswer: 17\nanswer: null\n");
    EXPECT_EQ(run.err, "kestrelctl: go on with watch --since i-1:9\nkestrelctl: the agent at " +
                           agent.path() + " is lost: it closed the connection\n");
    EXPECT_EQ(agent.requests().at(0).params, R"({"text":true})");

    const Outcome json = runCtl(agent, {"watch", "--json"});
    EXPECT_EQ(json.out, R"({"instance":"i-1","seq":7,"snapshot":[)" + change(0, "16") + "]}\n" +
                            change(8, "17") + "\n" + change(9, "null") + "\n");
    EXPECT_EQ(agent.requests().at(1).params, "{}");
}

TEST(Watch, GoesOnWhereItEnded) {
    std::string begin = R"({"instance":"a:b","seq":8})";
    std::string more = changedLine(change(9, "17"));
    FakeAgent agent([&](const Request& request) {
        agent.tell(resultLine(request, begin) + more);
        return std::string();
    });
    const Outcome known = runCtl(agent, {"watch", "--since", "a:b:8"});
    EXPECT_EQ(agent.requests().back().params, R"({"since":{"instance":"a:b","seq":8},"text":true})");
    EXPECT_EQ(known.out, "answer: 17\n");
    EXPECT_EQ(known.err.find("kestrelctl: go on with watch --since a:b:9"), 0U);

    begin = R"({"instance":"c","seq":2,"lost":true,"snapshot":[)" + change(0, "18") + R"(],"more":true})";
    more = snapshotLine(R"({"seq":3,"answers":[)" + change(0, "19") + R"(],"more":true})") +
           changedLine(change(4, "20"));
    const Outcome lost = runCtl(agent, {"watch", "--since", "a:b:9"});
    EXPECT_EQ(lost.out, "answer: 18\nanswer: 19\nanswer: 20\n");
    const std::string loss =
        "kestrelctl: changes were lost; these are all answers now; what is not among them is gone\n";
    EXPECT_EQ(lost.err.find(loss + "kestrelctl: the agent"), 0U)
        << lost.err << "without all answers, not from there";

    // Lost on the way.
    more += snapshotLine(R"({"seq":9,"answers":[],"more":false,"lost":true})");
    const Outcome again = runCtl(agent, {"watch", "--since", "a:b:9"});
    EXPECT_EQ(again.err.find(loss + loss + "kestrelctl: go on with watch --since c:9"), 0U) << again.err;
}

TEST(Watch, EndsWellWhenItIsInterrupted) {
    FakeAgent agent([](const Request& request) { return resultLine(request, nothingYet); });
    Outcome run;
    std::thread watching([&] { run = runCtl(agent, {"watch"}); });
    ASSERT_TRUE(agent.awaitRequests(1));
    agent.tell(changedLine(change(1, "17")));
    std::this_thread::sleep_for(20ms);
    ::pthread_kill(watching.native_handle(), SIGINT);
    watching.join();
    EXPECT_EQ(run.status, Ctl::exitDone);
    EXPECT_EQ(run.out, "answer: 17\n");
    EXPECT_EQ(run.err, "kestrelctl: go on with watch --since i:1\n");
}

// An agent whose one expectation holds from the change `holdsAt` on; each failing look is followed by `next`.
class WaitTest : public testing::Test {
  protected:
    std::string answer(const Request& request) {
        if (request.method == "watch")
            return resultLine(request, nothingYet);
        ++looks;
        if (changes >= holdsAt)
            return resultLine(request, R"({"result":{"held":true},"text":""})");
        return errorLine(request, R"({"code":-32001,"message":"mgroup: expected 17, but it is absent",)"
                                  R"("data":{"expected":"17","actual":"absent"}})") +
               next();
    }

    std::vector<std::string> wait(const std::string& timeout) const {
        return {"wait", "mgroup", "intf", "Ethernet5", "=", "17", "timeout", timeout};
    }

    std::function<std::string()> next = [] { return std::string(); };
    std::atomic<int> changes = 0;
    std::atomic<int> looks = 0;
    int holdsAt = 0;
    FakeAgent agent{[this](const Request& request) { return answer(request); }};
};

TEST_F(WaitTest, LooksAgainAfterEachChangeAndNotInBetween) {
    holdsAt = 3;
    std::thread telling([&] {
        for (int i = 1; i <= 3; ++i) {
            EXPECT_TRUE(agent.awaitRequests(static_cast<std::size_t>(i) + 1));
            std::this_thread::sleep_for(30ms);
            ++changes;
            agent.tell(changedLine(change(i, std::to_string(i))));
        }
    });
    const Outcome run = runCtl(agent, wait("10s"));
    telling.join();
    EXPECT_EQ(run.status, Ctl::exitDone) << run.err;
    EXPECT_EQ(looks, 4);
    EXPECT_EQ(agent.requests().at(1).params, R"({"line":"expect mgroup intf Ethernet5 = 17","text":true})");
    EXPECT_EQ(runCtl(agent, {"wait", "mgroup", "=", "17", "--json"}).out, "{\"held\":true}\n") << "at once";
}

TEST_F(WaitTest, LooksOnceForChangesThatCameTogether) {
    holdsAt = 100;
    next = [this] {
        std::string all = snapshotLine(R"({"seq":0,"lost":true,"answers":[],"more":false})");
        while (changes < holdsAt)
            all += changedLine(change(++changes, "16"));
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
    next = [] { return changedLine(change(1, "16")); };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(runCtl(agent, wait("60ms")).status, Ctl::exitTimedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TEST(Wait, TimesAreWrittenWithTheirUnit) {
    EXPECT_EQ(Ctl::durationOf("500ms"), 500ms);
    EXPECT_EQ(Ctl::durationOf("2s"), 2s);
    EXPECT_EQ(Ctl::durationOf("2"), 2s);
    EXPECT_EQ(Ctl::durationOf("1m"), 1min);
    for (const std::string word : {"", "s", "-1s", "2h", "1.5s", "2 s", "99999999999s"})
        EXPECT_EQ(Ctl::durationOf(word), std::nullopt) << word;
}

TEST(Wait, WhatCanNotHoldIsAnErrorAtOnce) {
    const FakeAgent agent([](const Request& request) {
        return request.method == "watch"
                   ? resultLine(request, "{}")
                   : errorLine(request, R"({"code":-32602,"message":"there is no VRF 'rde'"})");
    });
    const Outcome run = runCtl(agent, {"wait", "mroute", "vrf", "rde", "=", "none", "timeout", "10s"});
    EXPECT_EQ(run.status, Ctl::exitFailed);
    EXPECT_EQ(run.err, "kestrelctl: there is no VRF 'rde'\n");
}

} // namespace
} // namespace CtlTest
