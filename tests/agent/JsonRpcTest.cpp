// JSON-RPC 2.0: what is a request, what is answered, and what is refused before anything looks at it.
#include "agent/control/JsonRpc.h"

#include "agent/host/Refusal.h"
#include "agent/json/Json.h"
#include "tests/agent/Json.h"

#include <gtest/gtest.h>

#include <asio/io_context.hpp>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace AgentTest {
namespace {

using Agent::Progress;

class RecordingDispatcher : public Agent::Dispatcher {
  public:
    std::vector<std::string> calls;

    void call(Agent::ClientId client, std::string_view method, const State::Datum::Record& params,
              const Text::Reply& reply) override {
        calls.push_back(std::to_string(client) + " " + std::string(method) + " " +
                        Agent::Json::textOf(State::Datum(params)));
        if (method == "fail")
            throw Agent::Refusal("no such field", {.field = "oifs"});
        if (method == "slip")
            throw std::logic_error("a slip");
        reply([&](Text::Writer& writer) {
            if (method == "bytes")
                writer.value("bad \xff byte");
            else if (method == "big")
                writer.value(std::string(Agent::JsonRpc::partBytes / 3, 'b'));
            else
                Agent::Json::write(writer, State::Datum(params));
        });
    }
    bool takesMuch(std::string_view method) const override { return method == "much"; }
    void clientGone(Agent::ClientId /*client*/) override {}
};

class JsonRpcTest : public testing::Test {
  protected:
    std::string answer(const std::string& line) {
        std::string whole;
        const bool isLong = line.size() > Agent::LineHandler::longLine;
        if (isLong)
            rpc.serveLong(7, line);
        Progress progress = isLong ? Progress::later : rpc.serve(7, line, whole);
        for (; progress != Progress::done; ++parts) {
            if (progress == Progress::later) { // it is being read beside the loop
                loop.restart();
                while (!std::exchange(isAwake, false) && loop.run_one() != 0) {
                }
            }
            std::string part;
            progress = rpc.goOn(7, part);
            largest = std::max(largest, part.size());
            whole += part;
        }
        EXPECT_EQ(rpc.bytesFor(7), 0U);
        return whole;
    }

    Json error(const std::string& line) {
        const Json whole = Json::parse(answer(line));
        EXPECT_EQ(whole.at("jsonrpc"), "2.0");
        EXPECT_FALSE(whole.contains("result"));
        return whole.at("error");
    }

    asio::io_context loop;
    RecordingDispatcher dispatcher;
    bool isAwake = false;
    int parts = 0; // beside the first
    std::size_t largest = 0;
    Agent::Worker worker{loop};
    Agent::JsonRpc rpc{dispatcher, worker, [this](Agent::ClientId) { isAwake = true; }};
};

TEST_F(JsonRpcTest, AnswersUnderTheRequestsOwnId) {
    for (const std::string id : {"1", "-3", "1.5", "null", "18446744073709551615", "\"a\\u0041\\\"\""}) {
        const Json whole =
            Json::parse(answer(R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":"m","params":{"a":[1]}})"));
        EXPECT_EQ(whole, json("{'jsonrpc': '2.0', 'id': %, 'result': {'a': [1]}}", Json::parse(id)));
    }
    EXPECT_EQ(dispatcher.calls.front(), R"(7 m {"a":[1]})");
    answer(R"({"jsonrpc":"2.0","id":1,"method":"m"})");
    EXPECT_EQ(dispatcher.calls.back(), "7 m {}") << "without params the method sees an empty object";
}

TEST_F(JsonRpcTest, WhatIsNoRequestIsRefusedAndNothingCalled) {
    const std::vector<std::pair<std::string, int>> cases{
        {"x", -32700},
        {"{", -32700},
        {R"({"jsonrpc":"2.0","id":1,"method":"m"} trailing)", -32700},
        {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"\xc3\x28\"}", -32700},
        {"\xff\xfe", -32700},
        {std::string("{\"jsonrpc\":\"2.0\",\0}", 19), -32700},
        {R"({"jsonrpc":"2.0","id":1e999,"method":"m"})", -32700},
        {"1", -32600},
        {"null", -32600},
        {"[]", -32600},
        {"{}", -32600},
        {R"({"id":1,"method":"m"})", -32600},
        {R"({"jsonrpc":2.0,"id":1,"method":"m"})", -32600},
        {R"({"jsonrpc":"2.0","id":1})", -32600},
        {R"({"jsonrpc":"2.0","id":1,"method":1})", -32600},
        {R"({"jsonrpc":"2.0","id":[1],"method":"m"})", -32600},
        {R"({"jsonrpc":"2.0","id":1,"method":"m","parms":{}})", -32600},
        {R"({"jsonrpc":"2.0","id":1,"method":"m","":{}})", -32600},
        {R"({"jsonrpc":"2.0","id":1,"method":"m","method":"n"})", -32600},
        {R"({"jsonrpc":"2.0","id":1,"id":1,"method":"m"})", -32600},
        {R"({"jsonrpc":"2.0","id":1,"method":"m","params":[1]})", -32602},
        {R"({"jsonrpc":"2.0","id":1,"method":"m","params":null})", -32602},
    };
    for (const auto& [line, code] : cases)
        EXPECT_EQ(error(line).at("code"), code) << line;
    EXPECT_TRUE(dispatcher.calls.empty());
    EXPECT_EQ(Json::parse(answer(R"({"jsonrpc":"1.0","id":5,"method":"m"})")).at("id"), 5)
        << "a faulty request is answered under its id where it has one";
    EXPECT_EQ(error(R"({"jsonrpc":"2.0","id":1,"method":"m","parms":{}})").at("message"),
              R"(unknown member "parms": a request has jsonrpc, id, method and params)");
    // A parse error says where and does not quote the whole line.
    const std::string message =
        error(R"({"jsonrpc":"2.0",)" + std::string(1'000'000, 'x')).at("message").text();
    EXPECT_NE(message.find("column 18"), std::string::npos) << message;
    EXPECT_LT(error("\"" + std::string(1'000'000, 'x')).at("message").text().size(), 300U);
}

TEST_F(JsonRpcTest, NestingIsRefusedBeyondItsLimitBeforeItIsParsed) {
    const auto nested = [](std::size_t levels) {
        return std::string(levels, '[') + std::string(levels, ']');
    };
    const auto request = [](const std::string& value) {
        return R"({"jsonrpc":"2.0","id":1,"method":"m","params":{"a":)" + value + "}}";
    };
    const std::size_t limit = Agent::Json::depthLimit;
    EXPECT_TRUE(Json::parse(answer(request(nested(limit - 2)))).contains("result"));
    const auto message = [this](const std::string& line) { return error(line).at("message").text(); };
    EXPECT_NE(message(request(nested(limit - 1))).find("nest deeper than 64 levels"), std::string::npos);
    EXPECT_EQ(error(request(nested(10'000))).at("code"), -32700);
    EXPECT_EQ(error(std::string(4U << 20U, '[')).at("code"), -32700);
    std::string objects;
    for (int i = 0; i < 10'000; ++i)
        objects += R"({"a":)";
    EXPECT_NE(message(objects).find("nest deeper than 64 levels"), std::string::npos);
    EXPECT_EQ(dispatcher.calls.size(), 1U);

    // Brackets inside strings nest nothing, also behind escaped quotes; many side by side neither.
    const std::string inString = request(R"("\"\\\" )" + std::string(200, '[') + R"(")");
    EXPECT_TRUE(Json::parse(answer(inString)).contains("result"));
    std::string wide = "[[]";
    for (int i = 0; i < 500; ++i)
        wide += ",[]";
    EXPECT_TRUE(Json::parse(answer(request(wide + "]"))).contains("result"));
}

TEST_F(JsonRpcTest, ANotificationIsCarriedOutAndNeverAnswered) {
    for (const std::string method : {"m", "fail", "slip"})
        EXPECT_EQ(answer(R"({"jsonrpc":"2.0","method":")" + method + R"("})"), "");
    EXPECT_EQ(answer(R"([{"jsonrpc":"2.0","method":"m"},{"jsonrpc":"2.0","method":"fail"}])"), "");
    EXPECT_EQ(answer(R"({"jsonrpc":"2.0","method":"m","params":[]})"), "");
    EXPECT_EQ(dispatcher.calls.size(), 5U);
}

TEST_F(JsonRpcTest, ABatchIsAnsweredInOrderByOneArrayOfThoseWithAnId) {
    const Json whole =
        Json::parse(answer(R"([{"jsonrpc":"2.0","method":"m"},{"jsonrpc":"2.0","id":2,"method":"m"},)"
                           R"(7,{"jsonrpc":"2.0","id":"x","method":"fail"},[],)"
                           R"({"jsonrpc":"2.0","method":"m"}])"));
    ASSERT_EQ(whole.size(), 4U);
    EXPECT_EQ(whole.at(0), json("{'jsonrpc': '2.0', 'id': 2, 'result': {}}"));
    EXPECT_EQ(whole.at(1).at("error").at("code"), -32600);
    EXPECT_EQ(whole.at(2).at("id"), "x");
    EXPECT_EQ(whole.at(2).at("error"),
              json("{'code': -32602, 'message': 'no such field', 'data': {'field': 'oifs'}}"));
    EXPECT_EQ(whole.at(3).at("error").at("code"), -32600);
    EXPECT_EQ(dispatcher.calls.size(), 4U);
}

TEST_F(JsonRpcTest, ALongBatchIsAnsweredInPartsAndNoFurtherThanTheyAreTaken) {
    std::string batch = "[";
    for (int i = 0; i < 7; ++i)
        batch += R"({"jsonrpc":"2.0","id":)" + std::to_string(i) + R"(,"method":"big"},)";
    batch += R"({"jsonrpc":"2.0","method":"m"}])";
    std::string part;
    EXPECT_EQ(rpc.serve(8, batch, part), Progress::more);
    const std::size_t before = dispatcher.calls.size();
    EXPECT_LE(before, 3U); // fewer when its time is over
    EXPECT_GT(rpc.bytesFor(8), 0U);
    rpc.clientGone(8);
    EXPECT_EQ(rpc.bytesFor(8), 0U);

    const Json whole = Json::parse(answer(batch));
    EXPECT_GE(parts, 2);
    EXPECT_LT(largest, 2 * Agent::JsonRpc::partBytes);
    ASSERT_EQ(whole.size(), 7U);
    for (std::size_t i = 0; i < whole.size(); ++i)
        EXPECT_EQ(whole.at(i).at("id"), i);
    EXPECT_EQ(dispatcher.calls.size(), before + 8U);
}

TEST_F(JsonRpcTest, ALongLineIsReadBesideTheLoopAndHasSoManyValues) {
    const auto listOf = [](std::size_t values) {
        std::string list = R"({"jsonrpc":"2.0","id":1,"method":"much","params":{"a":[1)";
        for (std::size_t i = 1; i < values; ++i)
            list += ",1";
        return list + "]}}";
    };
    const std::size_t others = 6; // the message, its members and the list
    const std::size_t most = Agent::JsonRpc::valueLimit - others;
    EXPECT_EQ(Json::parse(answer(listOf(most))).at("result").at("a").size(), most);
    EXPECT_GT(parts, 0);
    EXPECT_EQ(error(listOf(most + 1)).at("code"), -32002);
    // A request of another method is shorter, in a batch too.
    const auto sized = [](std::size_t bytes) {
        return R"({"jsonrpc":"2.0","id":1,"method":"m","params":{"a":")" + std::string(bytes, 'x') + R"("}})";
    };
    EXPECT_TRUE(Json::parse(answer(sized(65'000))).contains("result"));
    EXPECT_EQ(error(sized(66'000)).at("code"), -32002);
    EXPECT_EQ(Json::parse(answer("[" + sized(66'000) + "," + sized(1) + "]")).at(0).at("error").at("code"),
              -32002);
    EXPECT_EQ(error(listOf(most) + "x").at("code"), -32700);
    std::string batch = "[1";
    for (std::size_t i = 0; i < Agent::JsonRpc::valueLimit; ++i)
        batch += ",1";
    EXPECT_EQ(error(batch + "]").at("code"), -32002);
    EXPECT_EQ(dispatcher.calls.size(), 3U);
}

TEST_F(JsonRpcTest, AnswersAreOneLineOfUtf8) {
    EXPECT_EQ(error(R"({"jsonrpc":"2.0","id":1,"method":"slip"})"),
              json("{'code': -32603, 'message': 'a slip'}"));
    EXPECT_EQ(Json::parse(answer(R"({"jsonrpc":"2.0","id":1,"method":"bytes"})")).at("result"),
              "bad \xef\xbf\xbd byte");
}

} // namespace
} // namespace AgentTest
