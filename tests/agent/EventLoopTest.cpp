// The event loop: what runs when, and what may be done from inside a callback.
#include "agent/EventLoop.h"

#include "agent/Fd.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

namespace AgentTest {
namespace {

using Agent::EventLoop;
using namespace std::chrono_literals;

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
        read = Agent::Fd(ends[0]);
        write = Agent::Fd(ends[1]);
    }
    void fill() const { EXPECT_EQ(::write(write.get(), "x", 1), 1); }
    void empty() const {
        char byte = 0;
        EXPECT_EQ(::read(read.get(), &byte, 1), 1);
    }
    Agent::Fd read;
    Agent::Fd write;
};

TEST(EventLoop, ACallbackMayRemoveItselfAndOthersThatAreReadyToo) {
    EventLoop loop;
    Pipe one;
    Pipe two;
    int calls = 0;
    const auto removeBoth = [&](unsigned /*ready*/) {
        ++calls;
        loop.fdDel(one.read.get());
        loop.fdDel(two.read.get());
        // A descriptor of the same number must not get the removed one's event.
        loop.fdIs(two.read.get(), 0, [&](unsigned /*ready*/) { ADD_FAILURE() << "a stale event"; });
        loop.timerIs(0ms, [&] { loop.stop(); });
    };
    loop.fdIs(one.read.get(), EventLoop::readable, removeBoth);
    loop.fdIs(two.read.get(), EventLoop::readable, removeBoth);
    one.fill();
    two.fill();
    loop.run();
    EXPECT_EQ(calls, 1);
}

TEST(EventLoop, TimersRunInTheOrderInWhichTheyAreDue) {
    EventLoop loop;
    std::string order;
    const auto start = EventLoop::Clock::now();
    loop.timerIs(8ms, [&] {
        order += "c";
        EXPECT_GE(EventLoop::Clock::now() - start, 8ms);
        loop.stop();
    });
    loop.timerIs(2ms, [&] { order += "a"; });
    const auto removed = loop.timerIs(4ms, [&] { order += "x"; });
    loop.timerIs(3ms, [&] {
        order += "b";
        EXPECT_TRUE(loop.timerDel(removed));
        EXPECT_FALSE(loop.timerDel(removed));
    });
    loop.run();
    EXPECT_EQ(order, "abc");
}

TEST(EventLoop, DeferredWorkIsCutIntoSlicesBetweenWhichDescriptorsAreServed) {
    EventLoop loop;
    Pipe pipe;
    std::uint64_t tasks = 0;
    std::function<void()> again = [&] {
        ++tasks;
        loop.defer(again); // without end, as a busy source would
    };
    loop.defer(again);
    for (int i = 0; i < 5000; ++i)
        loop.defer([&] { ++tasks; });
    for (int i = 0; i < 3; ++i)
        loop.defer([] { std::this_thread::sleep_for(3ms); });
    std::uint64_t served = 0;
    loop.fdIs(pipe.read.get(), EventLoop::readable, [&](unsigned /*ready*/) {
        if (++served == 20)
            loop.stop();
    });
    pipe.fill();
    loop.run();
    EXPECT_EQ(served, 20U) << "once a turn";
    EXPECT_GT(tasks, 5000U);
    EXPECT_LE(tasks, 20 * EventLoop::sliceTasks);
}

TEST(EventLoop, DeferredWorkCanBeSettledFromInsideACallback) {
    EventLoop loop;
    std::string order;
    loop.defer([&] {
        order += "a";
        loop.defer([&] {
            order += "c";
            loop.defer([&] { order += "d"; });
        });
        loop.defer([&] { order += "!"; });
    });
    loop.defer([&] {
        EXPECT_TRUE(loop.runDeferred());
        order += "e";
        loop.stop();
    });
    loop.run();
    EXPECT_EQ(order, "ac!de");

    std::function<void()> endless = [&] { loop.defer(endless); };
    loop.defer(endless);
    EXPECT_FALSE(loop.runDeferred(100));
}

TEST(EventLoop, AnExceptionLeavesTheLoopWhichCanThenGoOn) {
    EventLoop loop;
    Pipe pipe;
    loop.fdIs(pipe.read.get(), EventLoop::readable, [&](unsigned /*ready*/) {
        loop.fdDel(pipe.read.get());
        throw std::runtime_error("from a callback");
    });
    pipe.fill();
    EXPECT_THROW(loop.run(), std::runtime_error);
    loop.defer([] { throw std::logic_error("from a task"); });
    EXPECT_THROW(loop.run(), std::logic_error);
    loop.timerIs(0ms, [&] { loop.stop(); });
    EXPECT_NO_THROW(loop.run());
}

TEST(EventLoop, HooksEndEveryTurnAndKeepTheLoopAwakeWhileTheyHaveMoreToDo) {
    EventLoop loop;
    int left = 3;
    int others = 0;
    std::uint64_t other = 0;
    loop.turnHookIs([&] {
        if (left == 2)
            loop.turnHookDel(other);
        if (left == 0)
            loop.stop();
        return left-- > 0;
    });
    other = loop.turnHookIs([&] {
        ++others;
        return false;
    });
    loop.defer([] {}); // else the first turn waits for something to happen
    loop.run();
    EXPECT_EQ(loop.turn(), 4U);
    EXPECT_EQ(others, 1);
}

TEST(EventLoop, SignalsComeFromTheLoopAndNoneIsLeftOverToEndTheProcess) {
    std::string seen;
    {
        EventLoop loop;
        loop.signalsAre({SIGHUP, SIGTERM}, [&](int signal) {
            seen += signal == SIGHUP ? "h" : "t";
            if (signal == SIGTERM)
                loop.stop();
        });
        EXPECT_THROW(loop.signalsAre({SIGINT}, [](int) {}), std::logic_error);
        ::raise(SIGHUP);
        loop.timerIs(5ms, [] { ::raise(SIGTERM); });
        loop.run();
        ::raise(SIGTERM); // an impatient second one, while the agent is leaving
    }
    EXPECT_EQ(seen, "ht");
    sigset_t blocked;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0);
}

} // namespace
} // namespace AgentTest
