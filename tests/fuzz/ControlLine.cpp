// Lines of the control protocol, through a whole agent in this process: each request is answered once, a notification
// never, and what is answered with an error has changed nothing. Raw changes may end the process and a dry run forks:
// lines that ask for them are left out.
#include "agent/control/ControlService.h"
#include "tests/fuzz/FuzzAgent.h"
#include "tests/fuzz/Require.h"

#include <asio/io_context.hpp>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string_view>
#include <utility>

namespace {

using State::Datum;

struct Server : FuzzAgent {
    Server()
        : FuzzAgent(false) {}

    std::string answer(std::string_view line) {
        std::string whole;
        Agent::Progress progress = rpc.serve(1, line, whole);
        while (progress != Agent::Progress::done) {
            for (context.restart(); progress == Agent::Progress::later && !std::exchange(isAwake, false);)
                require(context.run_one_for(std::chrono::seconds(10)) != 0,
                        "every line is served to its end");
            std::string part;
            progress = rpc.goOn(1, part);
            whole += part;
        }
        return whole;
    }

    asio::io_context context{1};
    Agent::ControlService service{context, operations, language, log};
    bool isAwake = false;
    Agent::Worker worker{context};
    Agent::JsonRpc rpc{service, worker, [this](Agent::ClientId) { isAwake = true; }};
};

const Datum* member(const Datum& datum, std::string_view name) {
    if (datum.record() != nullptr)
        for (const auto& [given, content] : *datum.record())
            if (given == name)
                return &content;
    return nullptr;
}

bool mentions(const Datum& datum, std::string_view name) {
    const auto isIn = [name](const auto& content) { return mentions(content, name); };
    if (datum.list() != nullptr)
        return std::ranges::any_of(*datum.list(), isIn);
    return datum.record() != nullptr && std::ranges::any_of(*datum.record(), [&](const auto& field) {
               return field.first == name || isIn(field.second);
           });
}

bool isError(const Datum& answer, std::int64_t code) {
    const Datum* error = member(answer, "error");
    return error != nullptr && *member(*error, "code") == Datum(code);
}

// @return whether it is an error.
bool checkAnswer(const Datum& answer) {
    const bool isRefusal = member(answer, "error") != nullptr;
    require(isRefusal != (member(answer, "result") != nullptr), "an answer is a result or an error");
    require(member(answer, "id") != nullptr, "an answer has an id");
    require(!isError(answer, -32603), "no error is an internal one");
    return isRefusal;
}

// Without an id it is one, or no request at all.
bool mayBeNotification(const Datum& request) {
    return request.record() != nullptr && member(request, "id") == nullptr;
}

void serveLine(Server& server, std::string_view line) {
    Datum message;
    try {
        message = Agent::Json::parse(line);
    } catch (const Agent::Json::Error&) {
        require(checkAnswer(Agent::Json::parse(server.answer(line))), "what is no JSON is refused");
        return;
    }
    if (mentions(message, "raw") || mentions(message, "dryRun"))
        return;
    const std::string before = server.state();
    const std::string text = server.answer(line);
    require(text.find('\n') == std::string::npos, "an answer is one line");
    const Datum answer = text.empty() ? Datum(Datum::List()) : Agent::Json::parse(text);
    const Datum::List one{message};
    const Datum::List& requests = message.list() != nullptr ? *message.list() : one;
    const auto fewest =
        requests.size() - static_cast<std::size_t>(std::ranges::count_if(requests, &mayBeNotification));
    if (answer.list() != nullptr) {
        require(answer.list()->size() >= fewest && answer.list()->size() <= requests.size(),
                "each request of a batch is answered once");
        std::ranges::for_each(*answer.list(), &checkAnswer);
        return;
    }
    require(!mayBeNotification(message) || isError(answer, -32600), "a notification is not answered");
    if (checkAnswer(answer))
        require(server.state() == before, "a request that is refused changes nothing");
}

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    auto& server = freshAgent<Server>();
    for (std::size_t begin = 0, end = 0; begin < size; begin = end + 1) {
        end = std::min(text.find('\n', begin), size);
        serveLine(server, text.substr(begin, end - begin));
    }
    server.rpc.clientGone(1);
    require(!checkAnswer(Agent::Json::parse(server.answer(R"({"jsonrpc":"2.0","id":1,"method":"status"})"))),
            "afterwards the agent still serves");
    server.rpc.clientGone(1);
    return 0;
}
