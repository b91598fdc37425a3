// Whose turn it is, by clients with requests of different lengths.
#include "agent/control/Turns.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>

namespace AgentTest {
namespace {

using Agent::ClientId;
using Agent::Turns;
using namespace std::chrono_literals;

// The loop with clients that want one turn after the other, each as long as the client's are.
struct Loop {
    void join(ClientId client, Turns::Time length) {
        uses[client] = turns.join(time);
        lengths[client] = length;
        want(client);
    }
    void want(ClientId client) { turns.want(client, uses[client], time); }
    ClientId step() {
        const ClientId client = turns.next();
        time += lengths[client];
        turns.used(uses[client], lengths[client], time);
        if (isEager)
            want(client);
        return client;
    }

    Turns turns;
    std::map<ClientId, Turns::Use> uses;
    std::map<ClientId, Turns::Time> lengths;
    Turns::Time time{};
    bool isEager = true;
};

// 250 clients that ask much without a pause, or come anew for each request, and one that asks little now and then.
TEST(TurnsTest, ManyWithLongRequestsDoNotHoldUpOneWithShortOnes) {
    for (const bool comeAnew : {false, true}) {
        Loop loop;
        const ClientId modest = 100'000;
        ClientId last = 0;
        loop.isEager = false;
        loop.join(modest, 50us);
        EXPECT_EQ(loop.step(), modest);
        loop.time += 200ms;
        while (last < 250)
            loop.join(++last, 1ms);
        for (int i = 0; i < 3'000; ++i) {
            if (i % 5 == 0)
                loop.want(modest);
            const ClientId client = loop.step();
            EXPECT_EQ(client == modest, i % 5 == 0);
            if (client != modest && comeAnew)
                loop.join(++last, 1ms);
            else if (client != modest)
                loop.want(client);
        }
    }
}

TEST(TurnsTest, WhoComesAnewForEachRequestHasNoMoreThanOneWhoStays) {
    Loop loop;
    loop.isEager = false;
    ClientId last = 1;
    loop.join(1, 1ms);
    while (last < 20)
        loop.join(++last, 1ms);
    int turns = 0;
    for (int i = 0; i < 2'000; ++i)
        if (loop.step() == 1) {
            ++turns;
            loop.want(1);
        } else {
            loop.join(++last, 1ms);
        }
    EXPECT_GT(turns, 80);
    EXPECT_LT(turns, 120);
}

TEST(TurnsTest, TimeIsSharedEquallyAndEverybodysTurnComes) {
    Loop loop;
    std::map<ClientId, Turns::Time> had;
    loop.join(1, 1ms);
    loop.join(2, 10us);
    loop.join(3, 100us);
    while (loop.time < 300ms) {
        const ClientId client = loop.step();
        had[client] += loop.lengths[client];
    }
    for (const auto& [client, time] : had)
        EXPECT_NEAR(std::chrono::duration<double>(time).count(), 0.1, 0.003) << client;
    // One that comes late has no claim to what the others had before, nor has one that rested.
    loop.join(4, 1ms);
    had.clear();
    for (const Turns::Time end = loop.time + 40ms; loop.time < end;) {
        const ClientId client = loop.step();
        had[client] += loop.lengths[client];
    }
    EXPECT_LT(had[4], 13ms);
    EXPECT_GT(had[1], 8ms);
}

TEST(TurnsTest, WhoWaitsIsQueuedOnceAndAmongEqualsTheFirstGoesFirst) {
    Loop loop;
    loop.isEager = false;
    for (const ClientId client : {5, 3, 4})
        loop.join(client, 0us);
    loop.want(3);
    std::string order;
    while (loop.turns.anyWaiting())
        order += std::to_string(loop.step());
    EXPECT_EQ(order, "534");
}

} // namespace
} // namespace AgentTest
