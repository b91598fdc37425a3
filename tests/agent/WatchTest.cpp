// Watchers of a real agent: what they hear and in which order, how they go on after they were away, and what
// becomes of those who don't listen.
#include "agent/control/Watchers.h"

#include "tests/TestSeed.h"
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

// A watcher, and what it knows by what it was told, which must come in order and without gaps.
struct Follower {
    RpcClient client;
    Picture picture = {};
    std::uint64_t heard = 0; // number of the last change that the picture has
    bool isWhole = true;
    int losses = 0;
    int pages = 0;

    Json begin(const Json& params = json("{}")) {
        Json begun = client.result("watch", params);
        heard = begun.at("seq").number();
        if (begun.contains("snapshot"))
            takePage(begun, "snapshot");
        return begun;
    }
    // Hears until it knows all up to change number `last`.
    void hear(std::uint64_t last) {
        while (heard < last || !isWhole) {
            const Json told = client.notification();
            ASSERT_FALSE(told.isNull()) << "nothing came after number " << heard;
            if (told.contains("answers")) {
                losses += told.contains("lost") ? 1 : 0;
                ASSERT_TRUE(told.contains("lost") || told.at("seq") == heard)
                    << "a page told too early or late";
                heard = told.at("seq").number();
                takePage(told, "answers");
                continue;
            }
            ASSERT_EQ(told.at("seq"), heard + 1);
            ++heard;
            take(picture, told);
        }
    }

  private:
    void takePage(const Json& page, const char* list) {
        if (page.contains("lost"))
            picture.clear();
        for (const Json& answer : page.at(list).elements())
            take(picture, answer);
        isWhole = !page.contains("more") || page.at("more") == false;
        ++pages;
    }
};

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

    Follower follower() const { return {.client = agent->client()}; }
    // All that a new watcher is shown.
    Picture shown() {
        Follower fresh = follower();
        fresh.begin();
        fresh.hear(fresh.heard);
        return fresh.picture;
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
    EXPECT_TRUE(holds(json("{'instance': %, 'seq': %}", shown.at("instance"), shown.at("seq")), missed));
    EXPECT_FALSE(missed.contains("snapshot"));
    EXPECT_TRUE(holds(told("gone"), reader.notification()));
    for (int i = 0; i < 2; ++i)
        EXPECT_FALSE(watcher.notification().contains("text")) << "the other watcher did not ask for it";

    reader.result("unwatch");
    watcher.result("unwatch");
    run(request(3));
    EXPECT_TRUE(watcher.notification(std::chrono::milliseconds(50)).isNull());
    EXPECT_EQ(client.result("status").at("counters").at("watchers"), 0);
}

TEST_F(WatchTest, WhoComesBackHasThePictureOfWhoStayed) {
    Follower stayed = follower();
    stayed.begin();
    Picture returned;
    Json since;
    const std::uint32_t seed = testSeed();
    SCOPED_TRACE(seedText(seed));
    std::mt19937 random(seed);
    const auto draw = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
    for (int absence = 0; absence < 20; ++absence) {
        Follower coming = follower();
        coming.picture = returned;
        const Json begun = coming.begin(json("{}").with("since", since));
        EXPECT_FALSE(begun.contains("lost"));
        EXPECT_EQ(begun.contains("snapshot"), since.isNull());
        const auto doSomething = [&] {
            for (int i = 0; i < 5; ++i) {
                const std::string what = draw(3) == 0 ? route(draw(4)) : request(draw(6));
                run(draw(3) == 0 && what.starts_with("request") ? "no " + what : what);
            }
        };
        doSomething();
        coming.hear(lastSeq());
        returned = coming.picture;
        since = json("{'instance': %, 'seq': %}", begun.at("instance"), coming.heard);
        doSomething();
    }
    stayed.hear(lastSeq());
    Follower coming = follower();
    coming.picture = returned;
    coming.begin(json("{'since': %}", since));
    coming.hear(lastSeq());
    EXPECT_EQ(coming.picture, stayed.picture);
    EXPECT_EQ(stayed.picture, shown());
}

// Pages of a snapshot go among changes, of answers that were shown and of answers that are still to come.
TEST_F(WatchTest, ASnapshotInPagesIsWholeWhateverChangesMeanwhile) {
    const unsigned requests = 3000;
    askOften(requests);
    const std::uint32_t seed = testSeed();
    SCOPED_TRACE(seedText(seed));
    std::mt19937 random(seed);
    Follower watching = follower();
    EXPECT_EQ(watching.begin().at("more"), true);
    for (int i = 0; i < 300; ++i) {
        const std::string one = request(static_cast<unsigned>(random() % (requests + 50)));
        run(i % 100 == 50 ? route(static_cast<unsigned>(i)) : random() % 2 == 0 ? one : "no " + one);
    }
    watching.hear(lastSeq());
    EXPECT_GE(watching.pages, 10);
    EXPECT_EQ(watching.losses, 0);
    EXPECT_TRUE(watching.picture == shown());
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

TEST_F(WatchTest, AFloodIsHeardWholeByWhoReadsAndWhoDoesNotIsShownEverythingAnew) {
    const unsigned requests = 4000;
    askOften(requests);
    Follower reading = follower();
    Follower deaf = follower();
    const Json begun = reading.begin();
    reading.hear(reading.heard);
    deaf.begin();

    // Each change of the route tells more in one turn than may wait for a client.
    const unsigned changes = static_cast<unsigned>(Agent::AnswerLog::heldChanges / requests) + 4;
    ASSERT_GT(requests * 200, Agent::Watchers::waitingLimit);
    for (unsigned i = 0; i < changes; ++i) {
        run(i + 1 == changes ? "no " + request(1)
                             : route(i)); // one that the deaf one was shown is gone in the end
        reading.hear(lastSeq());
    }
    EXPECT_EQ(reading.heard, begun.at("seq").number() + std::uint64_t{requests} * (changes - 1) + 1);
    EXPECT_EQ(reading.losses, 0);
    deaf.hear(lastSeq());
    EXPECT_EQ(deaf.losses, 1);
    const Json counters = client.result("status").at("counters");
    EXPECT_EQ(counters.at("cutOff"), 0);
    EXPECT_EQ(counters.at("watchers"), 2);
    EXPECT_TRUE(reading.picture == shown());
    EXPECT_TRUE(deaf.picture == reading.picture);
    run(route(changes));
    deaf.hear(lastSeq());
    EXPECT_TRUE(deaf.picture == shown());

    // So much is no longer held; what is, comes.
    const std::uint64_t last = lastSeq();
    const Json instance = begun.at("instance");
    Follower back = follower();
    EXPECT_EQ(back.begin(sinceChange(instance, last - Agent::AnswerLog::heldChanges - 1)).at("lost"), true);
    back.hear(last);
    EXPECT_EQ(back.picture.size(), requests - 1);
    EXPECT_FALSE(back.begin(sinceChange(instance, last - Agent::AnswerLog::heldChanges)).contains("lost"));
    back.hear(last);
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
