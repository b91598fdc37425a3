// The control server against clients that behave and clients that don't, each over a real socket to another
// process.
#include "agent/control/Sessions.h"

#include "tests/agent/Json.h"
#include "tests/agent/TestClient.h"
#include "tests/agent/ToyServer.h"

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace AgentTest {
namespace {

using Agent::LineHandler;
using Agent::Sessions;

std::string request(const std::string& method, const Json& params = json("{}"), const Json& id = 1) {
    return json("{'jsonrpc': '2.0', 'id': %, 'method': %, 'params': %}", id, method, params).dump();
}

std::string echo() {
    return request("echo", json("{'a': 1}"));
}

std::string tell(int count, std::size_t bytes) {
    return request("tell", json("{'count': %, 'bytes': %}", count, bytes));
}

// The next line; null when there is none.
Json heard(TestClient& client) {
    return Json::parse(client.line().value_or("null"));
}

// A request of exactly so many bytes.
std::string requestOf(std::size_t bytes) {
    const std::size_t bare = request("size", json("{'text': ''}")).size();
    return request("size", json("{'text': %}", std::string(bytes - bare, 'x')));
}

class SessionsTest : public testing::Test {
  protected:
    TestClient client() const { return TestClient(server.path()); }

    Json status() const {
        TestClient asking = client();
        return Json::parse(asking.ask(request("status"))).at("result");
    }

    // Waits until the server counts so many clients, this asking one among them.
    bool clientsBecome(std::size_t count) const {
        for (int i = 0; i < 200; ++i) {
            const Json answer = Json::parse(client().ask(request("status")));
            if (answer.contains("result") && answer.at("result").at("clients") == count)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    TemporaryFolder folder;
    ToyServer server{folder.file("agent.sock")};
};

TEST_F(SessionsTest, ALineOfFourMebibytesIsAnsweredAndOneByteMoreEndsTheConnection) {
    TestClient large = client();
    const Json answer = Json::parse(large.ask(requestOf(LineHandler::lineLimit)));
    EXPECT_GT(answer.at("result").number(), LineHandler::lineLimit - 100);
    EXPECT_EQ(Json::parse(large.ask(echo())).at("result").dump(), R"({"a":1})");

    // Once with the newline, once without: the byte too many is what counts. What comes after it is not read.
    for (const std::string& end : {std::string("\n"), std::string("x")}) {
        TestClient tooLarge = client();
        std::string lines = echo() + "\n";
        lines.append(requestOf(LineHandler::lineLimit + (end == "\n" ? 1 : 0))).append(end);
        tooLarge.send(lines);
        EXPECT_EQ(heard(tooLarge).at("result").at("a"), 1);
        const Json refusal = heard(tooLarge);
        EXPECT_EQ(refusal.at("error").at("code"), -32600);
        EXPECT_TRUE(refusal.at("id").isNull());
        EXPECT_TRUE(tooLarge.ended());
    }
    EXPECT_TRUE(clientsBecome(2));
}

TEST_F(SessionsTest, AClientThatNeverReadsStopsBeingReadAndCostsNothingMore) {
    const std::size_t before = server.memory();
    TestClient deaf = client();
    const std::string asksMuch = request("big", json("{'bytes': 1000000}")) + "\n";
    std::size_t sent = 0;
    for (int idle = 0; idle < 20;) {
        const std::size_t now = deaf.sendSome(asksMuch);
        sent += now;
        if (now == 0) {
            ++idle;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        if (sent > 10'000'000)
            break;
    }
    EXPECT_LT(sent, 10'000'000U) << "the server reads on though its answers are not taken";
    TestClient other = client();
    EXPECT_EQ(Json::parse(other.ask(echo())).at("result").at("a"), 1);
    EXPECT_LT(server.memory(), before + (16U << 20U));
    deaf.close();
    EXPECT_TRUE(clientsBecome(2));
}

TEST_F(SessionsTest, AnAnswerThatTakesLongHoldsUpItsOwnClientAlone) {
    using namespace std::chrono_literals;
    TestClient other = client();
    const auto echoed = [&] { return Json::parse(other.ask(echo())).at("result"); };
    const auto release = [&] { other.ask(request("release")); };

    TestClient waiting = client();
    waiting.send(request("late") + "\n" + request("echo", json("{'b': 2}"), 2) + "\n");
    EXPECT_EQ(echoed(), json("{'a': 1}"));
    EXPECT_FALSE(waiting.line(50ms));
    release();
    EXPECT_EQ(heard(waiting), Json::parse(R"({"jsonrpc":"2.0","id":1,"result":"late"})"));
    EXPECT_EQ(heard(waiting).at("id"), 2);

    // A batch waits as a whole; what comes behind in it is carried out after.
    std::vector<Json> batch{json("{'jsonrpc': '2.0', 'method': 'late'}")};
    for (const char* method : {"echo", "late", "count", "late"})
        batch.push_back(Json::parse(request(method, json("{}"), batch.size() - 1)));
    waiting.send(Json(batch).dump() + "\n");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(echoed(), json("{'a': 1}"));
        EXPECT_FALSE(waiting.line(50ms));
        release();
    }
    const Json answers = heard(waiting);
    ASSERT_EQ(answers.size(), 4U);
    for (std::size_t i = 0; i < answers.size(); ++i)
        EXPECT_EQ(answers.at(i).at("id"), i);
    EXPECT_EQ(answers.at(1).at("result"), "late");
    EXPECT_EQ(answers.at(3).at("result"), "late");

    // Who only ended its input still hears the answer; who has gone costs nothing more.
    TestClient gone = client();
    gone.send(request("late") + "\n");
    waiting.send(request("late") + "\n");
    waiting.closeSendingSide();
    EXPECT_EQ(echoed(), json("{'a': 1}"));
    gone.close();
    EXPECT_FALSE(waiting.line(50ms));
    release();
    EXPECT_EQ(heard(waiting).at("result"), "late");
    EXPECT_FALSE(waiting.line());
    EXPECT_TRUE(waiting.ended());
    EXPECT_TRUE(clientsBecome(2));
}

TEST_F(SessionsTest, WhoLetsNotificationsPileUpIsCutOffAndWhoReadsThemIsNot) {
    TestClient deaf = client();
    TestClient reader = client();
    TestClient teller = client();
    deaf.ask(request("follow"));
    reader.ask(request("follow"));

    const std::size_t bytes = 1U << 20U;
    const std::size_t before = server.memory();
    int whole = 0;
    for (int i = 0; i < 24; ++i) {
        teller.ask(tell(1, bytes));
        whole += reader.line().value_or("").size() > bytes ? 1 : 0;
    }
    EXPECT_EQ(whole, 24);
    EXPECT_EQ(status().at("cutOff"), 1);
    EXPECT_LT(server.memory(), before + 3 * Sessions::notificationLimit);
    while (deaf.line()) {
    }
    EXPECT_TRUE(deaf.ended());
    EXPECT_TRUE(clientsBecome(3));
}

TEST_F(SessionsTest, AClientThatIsToldTooMuchByItsOwnRequestIsCutOffToo) {
    TestClient self = client();
    self.ask(request("follow"));
    self.send(tell(40, 1U << 20U) + "\n");
    while (self.line()) {
    }
    EXPECT_TRUE(self.ended());
    EXPECT_EQ(status().at("cutOff"), 1);
}

TEST_F(SessionsTest, WhatARequestCausesIsToldBeforeItsAnswerAlsoInsideABatch) {
    TestClient self = client();
    self.ask(request("follow"));
    const std::string telling = tell(2, 3);
    self.send(telling + "\n[" + telling + "," + telling + "]\n");
    for (const int notifications : {2, 4}) {
        for (int i = 0; i < notifications; ++i)
            EXPECT_EQ(self.line(), R"({"jsonrpc":"2.0","method":"told","params":"ttt"})");
        EXPECT_FALSE(heard(self).isNull());
    }
}

// Blank lines are passed over, and so is the last one, which is cut when the client closes its sending side.
TEST_F(SessionsTest, PipelinedLinesAreAnsweredInOrderAndToTheEnd) {
    TestClient piping = client();
    const int count = 3000;
    std::string lines;
    for (int i = 0; i < count; ++i)
        lines += request("echo", json("{'n': %, 'text': %}", i,
                                      std::string(static_cast<std::size_t>(i % 300), 'p'))) +
                 (i % 7 == 0 ? "\r\n\n  \n" : "\n");
    std::jthread sending([&] {
        piping.send(lines + echo());
        piping.closeSendingSide();
    });
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(heard(piping).at("result").at("n"), i);
    sending.join();
    EXPECT_EQ(piping.line(), std::nullopt);
    EXPECT_TRUE(piping.ended());
}

TEST_F(SessionsTest, ALongPipelineDoesNotHoldUpOthers) {
    TestClient holding = client();
    TestClient piping = client();
    std::vector<std::unique_ptr<TestClient>> others;
    others.reserve(64);
    for (int i = 0; i < 64; ++i)
        others.push_back(std::make_unique<TestClient>(server.path()));
    const std::uint64_t before = Json::parse(holding.ask(request("count"))).at("result").number();

    // While the server sleeps in one request, all the others' lines arrive.
    holding.send(request("sleep", json("{'ms': 200}")) + "\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::string lines;
    for (int i = 0; i < 50; ++i)
        lines += request("sleep", json("{'ms': 2}")) + "\n";
    piping.send(lines + request("count") + "\n");
    for (const auto& other : others)
        other->send(request("count") + "\n");
    for (const auto& other : others) {
        const std::uint64_t at = heard(*other).at("result").number();
        // They are new to the server, so some of the pipeline may go first.
        EXPECT_LE(at, before + 1 + 64 + 4);
    }
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(heard(piping).at("result"), true);
    EXPECT_EQ(heard(piping).at("result"), before + 1 + 64 + 50 + 1);
}

// Whoever has been idle for longest and waits for nothing goes for one that comes; where nobody is idle, the agent's
// own user has some more places.
TEST_F(SessionsTest, AThousandClientsAreServedAndWhenPlacesRunOutTheIdleGo) {
    const rlimit descriptors{.rlim_cur = 4096, .rlim_max = 4096};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &descriptors), 0);
    std::vector<TestClient> all;
    const auto join = [&](const char* method) {
        all.push_back(client());
        return Json::parse(all.back().ask(request(method)));
    };
    for (std::size_t i = 0; i < Sessions::clientLimit; ++i)
        ASSERT_TRUE(join(i == 0 ? "keep" : "echo").contains("result"));
    TestClient waiting = std::move(all[2]);
    waiting.send(request("late") + "\n");
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(join("keep").contains("result"));
    for (const std::size_t gone : {1, 3, 4}) {
        EXPECT_EQ(heard(all[gone]).at("error").at("code"), -32002);
        EXPECT_TRUE(all[gone].ended());
    }
    EXPECT_EQ(Json::parse(all[5].ask(request("status"))).at("result"),
              json("{'clients': %, 'cutOff': 0, 'idle': 3, 'gone': 3}", Sessions::clientLimit));
    all[0].ask(request("release"));
    EXPECT_EQ(heard(waiting).at("result"), "late");

    for (std::size_t i = 0; i < all.size(); ++i)
        if (i > 4)
            all[i].ask(request("keep"));
    waiting.ask(request("keep"));
    for (std::size_t i = 0; i < Sessions::reservedPlaces; ++i)
        EXPECT_TRUE(join("keep").contains("result"));
    TestClient extra = client();
    EXPECT_EQ(heard(extra).at("error").at("code"), -32002);
    EXPECT_TRUE(extra.ended());
    EXPECT_EQ(Json::parse(all[5].ask(request("status"))).at("result").at("idle"), 3);
}

TEST_F(SessionsTest, BeyondTheMemoryForAllTheOneWithMostIsCutOff) {
    const std::size_t before = server.memory();
    TestClient modest = client();
    modest.send(request("late") + "\n");
    std::vector<TestClient> deaf;
    constexpr std::size_t each = 7'000'000;
    for (std::size_t i = 0; i < 2 * Sessions::defaultMemoryLimit / each; ++i) {
        deaf.push_back(client());
        deaf.back().send(request("big", json("{'bytes': %}", each + i)) + "\n");
    }
    for (int i = 0; i < 500 && status().at("cutOff").number() < deaf.size() / 2; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_GE(status().at("cutOff").number(), deaf.size() / 2);
    EXPECT_LT(server.memory(), before + Sessions::defaultMemoryLimit + (16U << 20U));
    status();
    TestClient(server.path()).ask(request("release"));
    EXPECT_EQ(heard(modest).at("result"), "late");
    deaf.clear();
    EXPECT_TRUE(clientsBecome(2));
    EXPECT_LT(server.memory(), before + (8U << 20U)) << "it is given back";
}

TEST_F(SessionsTest, WithoutDescriptorsLeftTheServerLetsClientsInAgainWhenThereAreSome) {
    ToyServer small(folder.file("small.sock"), 24);
    // What needs a descriptor once, such as a sanitizer's look at a type, has had it when the first client
    // has gone.
    TestClient(small.path()).ask(request("echo"));
    while (Json::parse(TestClient(small.path()).ask(request("status"))).at("result").at("gone") == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::vector<std::unique_ptr<TestClient>> all;
    bool isServed = true;
    while (isServed && all.size() < 24) {
        all.push_back(std::make_unique<TestClient>(small.path()));
        all.back()->send(request("keep") + "\n");
        const auto answer = all.back()->line(std::chrono::milliseconds(100));
        isServed = answer.has_value();
        EXPECT_TRUE(!isServed || Json::parse(*answer).contains("result"));
    }
    EXPECT_FALSE(isServed) << "nobody can be let in, and nobody is closed who keeps his place";
    EXPECT_GT(all.size(), 5U);
    TestClient last(small.path());
    last.send(request("echo") + "\n");
    EXPECT_EQ(last.line(std::chrono::milliseconds(50)), std::nullopt);
    all.clear();
    EXPECT_TRUE(last.line().has_value());
    EXPECT_EQ(small.stop(), 0);
}

// Gives every line back and ends the loop when its client has gone.
class EchoHandler : public Agent::LineHandler {
  public:
    explicit EchoHandler(asio::io_context& loop)
        : loop_(loop) {}

    Agent::Progress serve(Agent::ClientId /*client*/, std::string_view line, std::string& answer) override {
        answer = line;
        return Agent::Progress::done;
    }
    void serveLong(Agent::ClientId /*client*/, std::string /*line*/) override {
        ADD_FAILURE() << "nobody sent it one";
    }
    Agent::Progress goOn(Agent::ClientId /*client*/, std::string& /*answer*/) override {
        return Agent::Progress::done;
    }
    std::size_t bytesFor(Agent::ClientId /*client*/) const override { return 0; }
    std::string refusal(Agent::TurnedAway /*reason*/) override { return "refused"; }
    void clientGone(Agent::ClientId /*client*/) override { loop_.stop(); }

  private:
    asio::io_context& loop_;
};

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe(ends.data()), 0);
        read = Agent::Fd(ends[0]);
        write = Agent::Fd(ends[1]);
    }
    Agent::Fd read;
    Agent::Fd write;
};

// All that comes until the other end closes.
std::string drain(int fd) {
    std::string all;
    std::array<char, 65536> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init)
    for (ssize_t count = 0; (count = ::read(fd, buffer.data(), buffer.size())) > 0;)
        all.append(buffer.data(), static_cast<std::size_t>(count));
    return all;
}

// Serves the one client to its end; how many are left.
std::size_t serve(int in, int out) {
    asio::io_context loop;
    EchoHandler handler(loop);
    Sessions server(loop, handler);
    server.serve(in, out);
    loop.run();
    return server.clients();
}

TEST(StandardInputAndOutput, ServesOneClientUntilItsInputEnds) {
    Pipe input;
    Pipe output;
    std::string lines;
    for (int i = 0; i < 50'000; ++i)
        lines += "line " + std::to_string(i) + "\n";
    std::jthread sending([&] {
        EXPECT_EQ(::write(input.write.get(), lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
        input.write.close();
    });
    std::string answers;
    std::jthread reading([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // so that the pipe fills up first
        answers = drain(output.read.get());
    });
    serve(input.read.get(), output.write.get());
    EXPECT_EQ(::fcntl(output.write.get(), F_GETFL) & O_NONBLOCK, 0) << "others share this description";
    output.write.close();
    sending.join();
    reading.join();
    EXPECT_EQ(answers, lines);
}

TEST(StandardInputAndOutput, ReadsAFileAndWritesAFile) {
    TemporaryFolder folder;
    const Agent::Fd input(::open(folder.file("in").c_str(), O_RDWR | O_CREAT, 0600));
    const Agent::Fd output(::open(folder.file("out").c_str(), O_RDWR | O_CREAT, 0600));
    ASSERT_EQ(::pwrite(input.get(), "one\ntwo\nthr", 11, 0), 11);
    serve(input.get(), output.get());
    ::lseek(output.get(), 0, SEEK_SET);
    EXPECT_EQ(drain(output.get()), "one\ntwo\n");
}

TEST(StandardInputAndOutput, AReaderThatHasGoneEndsTheServiceAndNotTheProcess) {
    Pipe input;
    Pipe output;
    output.read.close();
    ASSERT_EQ(::write(input.write.get(), "one\n", 4), 4);
    EXPECT_EQ(serve(input.read.get(), output.write.get()), 0U);
}

} // namespace
} // namespace AgentTest
