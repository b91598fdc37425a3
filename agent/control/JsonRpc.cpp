#include "agent/control/JsonRpc.h"

#include "agent/host/Refusal.h"
#include "agent/json/Json.h"
#include "text/JsonWriter.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <span>
#include <type_traits>

namespace Agent {

namespace {

using State::Datum;

namespace RpcCode {
constexpr int parseError = -32700;
constexpr int invalidRequest = -32600;
constexpr int methodNotFound = -32601;
constexpr int invalidParams = -32602;
constexpr int internalError = -32603;
constexpr int guardRefuses = -32000;
constexpr int expectationFailed = -32001;
constexpr int limitReached = -32002;
} // namespace RpcCode

// What is no request.
class InvalidRequest : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// By RefusalKind.
constexpr int refusalCodes[] = {RpcCode::invalidParams, RpcCode::guardRefuses, RpcCode::limitReached,
                                RpcCode::expectationFailed};

const Datum noId;
const Datum::Record noParams;

// Tells the parts of the place that are there as `data`; without any nothing.
void writePlace(Text::Writer& writer, const Where& where) {
    bool isBegun = false;
    const auto tell = [&](std::string_view name, const auto& part) {
        if (part == std::remove_cvref_t<decltype(part)>())
            return;
        if (!std::exchange(isBegun, true)) {
            writer.field("data");
            writer.beginRecord();
        }
        if constexpr (requires { *part; })
            writer.member(name, *part);
        else
            writer.member(name, part);
    };
    tell("path", where.path);
    tell("attribute", where.attribute);
    tell("field", where.field);
    tell("index", where.index);
    tell("line", where.line);
    tell("word", where.word);
    tell("expected", where.expected);
    tell("actual", where.actual);
    if (isBegun)
        writer.end();
}

void append(std::string& out, const Datum& id, std::string_view outcome, const Text::Tell& tell) {
    Text::JsonWriter writer(out);
    writer.beginRecord();
    writer.member("jsonrpc", "2.0");
    writer.field("id");
    Json::write(writer, id);
    writer.field(outcome);
    tell(writer);
    writer.end();
}

void appendError(std::string& out, const Datum& id, int code, std::string_view message,
                 const Where& where = {}) {
    append(out, id, "error", [&](Text::Writer& writer) {
        writer.beginRecord();
        writer.member("code", code);
        writer.member("message", message);
        writePlace(writer, where);
        writer.end();
    });
}

std::string errorOf(int code, std::string_view message) {
    std::string text;
    appendError(text, noId, code, message);
    return text;
}

// Appends what `tell` writes as the answer; in its place, what it raises as an error.
void appendResult(std::string& out, const Datum& id, const Text::Tell& tell) {
    const std::size_t before = out.size();
    const auto fail = [&](int code, const std::exception& error, const Where& where = {}) {
        out.resize(before);
        appendError(out, id, code, error.what(), where);
    };
    try {
        append(out, id, "result", tell);
    } catch (const Refusal& refusal) {
        fail(refusalCodes[static_cast<std::size_t>(refusal.kind())], refusal, refusal.where());
    } catch (const InvalidRequest& error) {
        fail(RpcCode::invalidRequest, error);
    } catch (const UnknownMethod& error) {
        fail(RpcCode::methodNotFound, error);
    } catch (const std::exception& error) {
        fail(RpcCode::internalError, error);
    }
}

bool isId(const Datum& id) {
    return id.boolean() == nullptr && id.list() == nullptr && id.record() == nullptr;
}

// A request's members; those that may be left out are null then.
struct Request {
    const Datum* version = nullptr;
    const Datum* method = nullptr;
    const Datum* id = nullptr;
    const Datum* params = nullptr;
    std::string fault = {}; // what is wrong beside the parameters; empty when nothing is

    explicit Request(const Datum& message);
    bool wantsAnswer() const { return id != nullptr || !fault.empty(); }
    // The id under which it is answered, faulty ones too.
    const Datum& answerId() const { return id != nullptr && isId(*id) ? *id : noId; }
};

Request::Request(const Datum& message) {
    if (message.record() == nullptr) {
        fault = "a request is an object";
        return;
    }
    const std::pair<std::string_view, const Datum**> members[] = {
        {"jsonrpc", &version}, {"id", &id}, {"method", &method}, {"params", &params}};
    for (const auto& [name, value] : *message.record()) {
        const auto* const member =
            std::ranges::find(members, name, [](const auto& pair) { return pair.first; });
        if (member == std::end(members))
            fault = "unknown member \"" + name + "\": a request has jsonrpc, id, method and params";
        else if (std::exchange(*member->second, &value) != nullptr)
            fault = "member \"" + name + "\" is given twice";
    }
    if (!fault.empty())
        return;
    if (version == nullptr || *version != Datum("2.0"))
        fault = R"(member "jsonrpc" must be "2.0")";
    else if (method == nullptr || method->text() == nullptr)
        fault = R"(member "method" must be a string)";
    else if (id != nullptr && !isId(*id))
        fault = R"(member "id" must be a string, a number or null)";
}

} // namespace

// A line that is being answered: a request, or a batch, whose answers leave together.
struct JsonRpc::Line {
    ClientId client = 0;
    Datum message = {};
    std::span<const Datum> left = {}; // requests that are not served yet
    const Datum* awaited = nullptr;   // the id of the request that is being served, if it wants an answer
    bool isServing = false;           // inside goOn()
    std::string answers = {};

    void answer(const Text::Tell& tell) {
        if (message.list() != nullptr)
            answers += answers.empty() ? '[' : ',';
        appendResult(answers, *std::exchange(awaited, nullptr), tell);
    }
};

JsonRpc::JsonRpc(asio::io_context& context, Dispatcher& dispatcher, Finish finish)
    : dispatcher_(dispatcher)
    , finish_(std::move(finish))
    , nextSlice_(context, [this] { serveSlice(); }) {}

std::optional<std::string> JsonRpc::serve(ClientId client, std::string_view text) {
    const auto line = std::make_shared<Line>();
    line->client = client;
    try {
        line->message = Json::parse(text);
    } catch (const Json::Error& error) {
        return errorOf(RpcCode::parseError, error.what());
    }
    const Datum::List* batch = line->message.list();
    if (batch != nullptr && batch->empty())
        return errorOf(RpcCode::invalidRequest, "the batch is empty");
    line->left = batch == nullptr ? std::span(&line->message, 1) : std::span(*batch);
    if (goOn(line))
        return std::move(line->answers);
    waiting_[client] = line;
    return std::nullopt;
}

// Serves what is left of a line, for a slice at most. @return false when it waits for a reply or its next slice.
bool JsonRpc::goOn(const std::shared_ptr<Line>& line) {
    const auto end = std::chrono::steady_clock::now() + slice;
    line->isServing = true;
    while (line->awaited == nullptr && !line->left.empty()) {
        serveNext(line);
        if (std::chrono::steady_clock::now() >= end)
            break;
    }
    line->isServing = false;
    if (line->awaited != nullptr)
        return false;
    if (!line->left.empty()) {
        due_.push_back(line->client);
        nextSlice_.request();
        return false;
    }
    if (line->message.list() != nullptr && !line->answers.empty())
        line->answers += ']';
    return true;
}

void JsonRpc::serveNext(const std::shared_ptr<Line>& line) {
    const Request request(line->left.front());
    line->left = line->left.subspan(1);
    // What replies to a notification, perhaps while a later request of its batch waits, is heard by nobody.
    Text::Reply reply = [](const Text::Tell&) {};
    if (request.wantsAnswer()) {
        line->awaited = &request.answerId();
        reply = [this, line, id = line->awaited](const Text::Tell& tell) {
            if (line->awaited == id)
                replied(line, tell);
        };
    }
    try {
        if (!request.fault.empty())
            throw InvalidRequest(request.fault);
        if (line->answers.size() > batchAnswerLimit)
            throw Refusal(RefusalKind::limit,
                          "not carried out: the answers of this batch have grown too large");
        if (request.params != nullptr && request.params->record() == nullptr)
            throw Refusal("parameters go by name: \"params\" must be an object");
        dispatcher_.call(line->client, *request.method->text(),
                         request.params == nullptr ? noParams : *request.params->record(), reply);
    } catch (const std::exception&) {
        if (line->awaited != nullptr)
            line->answer(
                [raised = std::current_exception()](Text::Writer&) { std::rethrow_exception(raised); });
    }
}

void JsonRpc::replied(const std::shared_ptr<Line>& line, const Text::Tell& tell) {
    line->answer(tell);
    if (!line->isServing)
        finishIfDone(line);
}

void JsonRpc::serveSlice() {
    const auto found = waiting_.find(due_.front());
    due_.pop_front();
    if (!due_.empty())
        nextSlice_.request();
    if (found != waiting_.end()) // else the client has gone
        finishIfDone(std::shared_ptr(found->second));
}

void JsonRpc::finishIfDone(const std::shared_ptr<Line>& line) {
    if (!goOn(line))
        return;
    waiting_.erase(line->client);
    finish_(line->client, std::move(line->answers));
}

std::string JsonRpc::refusal(TurnedAway reason) {
    if (reason == TurnedAway::lineTooLong)
        return errorOf(RpcCode::invalidRequest, "a message has at most " + std::to_string(lineLimit) +
                                                    " bytes; the connection is closed");
    return errorOf(RpcCode::limitReached, "the agent serves " + std::to_string(clientLimit) +
                                              " clients already; the connection is closed");
}

void JsonRpc::clientGone(ClientId client) {
    if (const auto found = waiting_.find(client); found != waiting_.end()) {
        found->second->awaited = nullptr; // nobody is left to hear it
        waiting_.erase(found);
    }
    dispatcher_.clientGone(client);
}

} // namespace Agent
