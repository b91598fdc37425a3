// Watchers of a real agent: what they hear and in which order, how they go on after they were away, and what
// becomes of those who don't listen.
#include "agent/control/Watchers.h"

#include "tests/agent/AgentProcess.h"

#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <memory>
#include <random>
#include <string>

namespace AgentTest {
namespace {

// Answers as a watcher knows them.
using Picture = std::map<std::string, Json>;

void take(Picture& picture, const Json& change) {
    const std::string name = change.at("path").text() + " " + change.at("key").dump();
    if (change.at("value").isNull())
        picture.erase(name);
    else
        picture[name] = change.at("value");
}

class WatchTest : public testing::Test {
  protected:
    void SetUp() override { run("vrf red id 3 multicast on"); }

    static std::string request(unsigned intf, const std::string& source = "10.0.0.1") {
        return "request mroute intf Ethernet" + std::to_string(intf) + " vrf red vlan 10 source " + source +
               " group 239.1.1.1";
    }
    static Json sinceChange(const Json& instance, const Json& seq) {
        return json("{'since': {'instance': %, 'seq': %}}", instance, seq);
    }
    static std::string route(unsigned oif) {
        return "route red static 10.0.0.1/32 239.1.1.1/32 oifs Ethernet" + std::to_string(oif);
    }
    void run(const std::string& line) { client.run(line); }

    // Many requests for one flow, so that a change of its route changes as many answers.
    void askOften(unsigned requests) {
        std::vector<Json> lines;
        for (unsigned i = 0; i < requests; ++i)
            lines.emplace_back(request(i));
        client.result("apply", json("{'lines': %}", lines));
    }

    // All that a new watcher is shown.
    Picture shown() {
        RpcClient fresh = agent->client();
        Picture picture;
        for (const Json& answer : fresh.result("watch").at("snapshot").elements())
            take(picture, answer);
        return picture;
    }

    // Hears changes up to number `last`, which must come without gaps after number `heard`.
    static void hear(RpcClient& watcher, Picture& picture, std::uint64_t& heard, std::uint64_t last) {
        while (heard < last) {
            const Json change = watcher.notification();
            ASSERT_FALSE(change.isNull()) << "nothing came after number " << heard;
            ASSERT_EQ(change.at("seq"), heard + 1);
            ++heard;
            take(picture, change);
        }
    }

    std::uint64_t lastSeq() { return client.result("status").at("counters").at("answerSeq").number(); }

    TemporaryFolder folder;
    const std::vector<std::string> options{"--toggle", "KestrelNatMfibLumen=on"};
    std::unique_ptr<AgentProcess> agent = std::make_unique<AgentProcess>(folder, options);
    RpcClient client{agent->client()};
};

TEST_F(WatchTest, ChangesComeInOrderWithTheAnswerOfTheMoment) {
    RpcClient watcher = agent->client();
    const Json begun = watcher.result("watch");
    EXPECT_EQ(begun.at("snapshot"), json("[]"));
    run(request(1));
    run(route(7));
    run(route(8));
    run("no " + request(1));
    const std::vector<Json> values = json("[[], ['Ethernet7'], ['Ethernet8'], null]").elements();
    for (std::size_t i = 0; i < values.size(); ++i) {
        const Json change = watcher.notification();
        EXPECT_EQ(change.at("seq"), begun.at("seq").number() + i + 1);
        EXPECT_EQ(change.at("path"), "api/mroute/resp");
        EXPECT_EQ(change.at("key").at("intf"), "Ethernet1");
        EXPECT_EQ(change.at("value"), values[i]);
    }

    // Who asks for it is told each answer also as people read it: shown, missed and changed.
    const auto told = [](const std::string& answer) {
        return json("{'vrf': 'red', 'text': %}",
                    "mroute (10.0.0.1, 239.1.1.1) in red for Ethernet2 vlan 10: " + answer);
    };
    run(request(2));
    RpcClient reader = agent->client();
    const Json shown = reader.result("watch", json("{'text': true}"));
    EXPECT_TRUE(holds(json("[%]", told("Ethernet8")), shown.at("snapshot"))) << shown;
    run("no " + request(2));
    EXPECT_TRUE(holds(told("gone"), reader.notification()));
    const Json missed =
        reader.result("watch", sinceChange(shown.at("instance"), shown.at("seq")).with("text", true));
    EXPECT_TRUE(holds(json("[%]", told("gone")), missed.at("changes"))) << missed;
    for (int i = 0; i < 2; ++i)
        EXPECT_FALSE(watcher.notification().contains("text")) << "the other watcher did not ask for it";

    reader.result("unwatch");
    watcher.result("unwatch");
    run(request(3));
    EXPECT_TRUE(watcher.notification(std::chrono::milliseconds(50)).isNull());
    EXPECT_EQ(client.result("status").at("counters").at("watchers"), 0);
}

TEST_F(WatchTest, WhoComesBackHasThePictureOfWhoStayed) {
    RpcClient staying = agent->client();
    Picture stayed;
    std::uint64_t heardStaying = staying.result("watch").at("seq").number();
    Picture returned;
    Json since;
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto draw = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
    for (int absence = 0; absence < 20; ++absence) {
        RpcClient coming = agent->client();
        const Json begun = coming.result("watch", json("{}").with("since", since));
        EXPECT_FALSE(begun.contains("lost"));
        EXPECT_EQ(begun.contains("snapshot"), since.isNull());
        std::uint64_t heard = (since.isNull() ? begun : since).at("seq").number();
        for (const Json& change : since.isNull() ? std::vector<Json>() : begun.at("changes").elements()) {
            EXPECT_EQ(change.at("seq"), ++heard);
            take(returned, change);
        }
        EXPECT_EQ(begun.at("seq"), heard);
        const auto doSomething = [&] {
            for (int i = 0; i < 5; ++i) {
                const std::string what = draw(3) == 0 ? route(draw(4)) : request(draw(6));
                run(draw(3) == 0 && what.starts_with("request") ? "no " + what : what);
            }
        };
        doSomething();
        hear(coming, returned, heard, lastSeq());
        since = json("{'instance': %, 'seq': %}", begun.at("instance"), heard);
        coming.close();
        doSomething();
    }
    hear(staying, stayed, heardStaying, lastSeq());
    RpcClient coming = agent->client();
    const Json missed = coming.result("watch", json("{'since': %}", since));
    for (const Json& change : missed.at("changes").elements())
        take(returned, change);
    EXPECT_EQ(returned, stayed);
    EXPECT_EQ(stayed, shown());
}

TEST_F(WatchTest, ARestartedAgentShowsEverythingAnew) {
    const Json before = client.result("watch");
    agent->signal(SIGKILL);
    agent->wait();
    agent = std::make_unique<AgentProcess>(folder, options);
    RpcClient again = agent->client();
    again.run("vrf red id 3 multicast on");
    again.run(request(1));
    const Json begun = again.result("watch", sinceChange(before.at("instance"), before.at("seq")));
    EXPECT_EQ(begun.at("lost"), true);
    EXPECT_NE(begun.at("instance"), before.at("instance"));
    EXPECT_EQ(begun.at("snapshot").size(), 1U);

    // A number that has not been yet is none of this run's either.
    const Json ahead = again.result("watch", sinceChange(begun.at("instance"), begun.at("seq").number() + 1));
    EXPECT_EQ(ahead.at("lost"), true);
    for (const char* wrong :
         {"{'instance': 'x'}", "{'instance': 1, 'seq': 1}", "{'instance': 'x', 'seq': 1, 'x': 1}"})
        EXPECT_EQ(again.error("watch", json("{'since': %}", json(wrong))).at("code"), -32602);
}

TEST_F(WatchTest, AFloodIsHeardWholeByWhoReadsAndCutsOffWhoDoesNot) {
    const unsigned requests = 4000;
    askOften(requests);
    RpcClient reading = agent->client();
    RpcClient deaf = agent->client();
    const Json begun = reading.result("watch");
    Picture picture;
    std::uint64_t heard = begun.at("seq").number();
    deaf.result("watch");

    // Each change of the route tells more in one turn than may wait for a client.
    const unsigned changes = static_cast<unsigned>(Agent::AnswerLog::heldChanges / requests) + 4;
    ASSERT_GT(requests * 200, Agent::Watchers::waitingLimit);
    for (unsigned i = 0; i < changes; ++i) {
        run(route(i));
        hear(reading, picture, heard, lastSeq());
    }
    EXPECT_EQ(heard, begun.at("seq").number() + std::uint64_t{requests} * changes);
    const Json counters = client.result("status").at("counters");
    EXPECT_EQ(counters.at("cutOff"), 1);
    EXPECT_EQ(counters.at("watchers"), 1);
    EXPECT_TRUE(picture == shown());

    while (deaf.line(std::chrono::milliseconds(500))) {
    }
    EXPECT_TRUE(deaf.ended());

    // So much is no longer held; what is, comes.
    const std::uint64_t last = lastSeq();
    const Json instance = begun.at("instance");
    const Json tooOld =
        client.result("watch", sinceChange(instance, last - Agent::AnswerLog::heldChanges - 1));
    EXPECT_EQ(tooOld.at("lost"), true);
    EXPECT_EQ(tooOld.at("snapshot").size(), requests);
    const Json held = client.result("watch", sinceChange(instance, last - Agent::AnswerLog::heldChanges));
    EXPECT_FALSE(held.contains("lost"));
    EXPECT_EQ(held.at("changes").size(), Agent::AnswerLog::heldChanges);
}

TEST_F(WatchTest, NobodyIsToldOfTheTeardown) {
    run(request(1));
    RpcClient watcher = agent->client();
    EXPECT_EQ(watcher.result("watch").at("snapshot").size(), 1U);
    EXPECT_EQ(agent->stop(), 0);
    EXPECT_EQ(watcher.line(), std::nullopt);
    EXPECT_TRUE(watcher.ended());
}

} // namespace
} // namespace AgentTest
