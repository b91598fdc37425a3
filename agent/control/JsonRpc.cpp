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

// Appends what `tell` writes as the answer; in its place, what it raises as an error. @throws std::bad_alloc: who called
// the method knows what that means.
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
    } catch (const std::bad_alloc&) {
        throw;
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
        if (member == std::end(members)) {
            if (fault.empty())
                fault = "unknown member \"" + name.substr(0, 100) +
                        "\": a request has jsonrpc, id, method and params";
        } else if (std::exchange(*member->second, &value) != nullptr)
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

// A line that is being answered: a request, or a batch, whose answers make one.
struct JsonRpc::Line {
    explicit Line(ClientId sender)
        : client(sender) {}

    const ClientId client;
    std::string text = {};  // that is to be read; the thread's while it is
    std::size_t unread = 0; // bytes of it while the thread has the line
    bool isLong = false;
    Datum message = {};
    std::size_t values = 0;           // in it
    std::span<const Datum> left = {}; // requests that are not served yet
    const Datum* awaited = nullptr;   // the id of the request that is being served, if it wants an answer
    bool isServing = false;           // inside serveSlice()
    std::string answers = {};         // that were not handed on
    bool hasAnswers = false;          // handed on or not

    bool isBatch() const { return message.list() != nullptr; }
    // Members of records have names beside their values.
    std::size_t bytes() const {
        return unread != 0 ? unread : values * (sizeof(Datum) + sizeof(std::string)) + answers.capacity();
    }

    // Makes requests of a text, or an answer of what is wrong with it.
    void read(std::string_view from) {
        try {
            message = Json::parse(from, valueLimit);
            values = Json::valuesOf(message, valueLimit);
            left = isBatch() ? std::span<const Datum>(*message.list()) : std::span<const Datum>(&message, 1);
            if (left.empty())
                answers = errorOf(RpcCode::invalidRequest, "the batch is empty");
        } catch (const Json::TooMany&) {
            answers = errorOf(RpcCode::limitReached,
                              "a message has at most " + std::to_string(valueLimit) + " values");
        } catch (const Json::Error& error) {
            answers = errorOf(RpcCode::parseError, error.what());
        } catch (const std::bad_alloc&) {
            message = {};
            answers = errorOf(RpcCode::limitReached, "out of memory: nothing was changed");
        }
    }

    // @throws std::bad_alloc: it is awaited as before.
    void answer(const Text::Tell& tell) {
        const std::size_t before = answers.size();
        try {
            if (isBatch())
                answers += hasAnswers ? ',' : '[';
            appendResult(answers, *awaited, tell);
        } catch (const std::bad_alloc&) {
            answers.resize(before);
            throw;
        }
        hasAnswers = true;
        awaited = nullptr;
    }

    // The answer when `tell` needs more memory than there is.
    void answerLate(const Text::Tell& tell) {
        try {
            answer(tell);
        } catch (const std::bad_alloc&) {
            answer([](Text::Writer&) {
                throw Refusal(RefusalKind::limit, "out of memory: what came of it can't be told");
            });
        }
    }
};

JsonRpc::JsonRpc(Dispatcher& dispatcher, Worker& worker, Wake wake)
    : dispatcher_(dispatcher)
    , worker_(worker)
    , wake_(std::move(wake)) {}

Progress JsonRpc::serve(ClientId client, std::string_view text, std::string& answer) {
    auto line = std::make_shared<Line>(client);
    line->read(text);
    return serveSlice(line, answer);
}

// It is read beside the loop.
void JsonRpc::serveLong(ClientId client, std::string text) {
    auto line = std::make_shared<Line>(client);
    line->isLong = true;
    line->text = std::move(text);
    line->unread = line->text.size();
    lines_[client] = line;
    worker_.run(
        [line] {
            line->read(line->text);
            line->text = {};
        },
        [this, client, read = std::weak_ptr(line)] {
            if (!read.expired())
                wake_(client);
        });
}

Progress JsonRpc::goOn(ClientId client, std::string& answer) {
    const std::shared_ptr<Line> line = lines_.at(client);
    line->unread = 0;
    return serveSlice(line, answer);
}

// Serves what is left of a line: all of it, or as much as one turn may have.
Progress JsonRpc::serveSlice(const std::shared_ptr<Line>& line, std::string& answer) {
    const auto end = line->isBatch() ? std::chrono::steady_clock::now() + slice
                                     : std::chrono::steady_clock::time_point::max();
    line->isServing = true;
    while (line->awaited == nullptr && !line->left.empty()) {
        serveNext(line);
        if (line->answers.size() >= partBytes || std::chrono::steady_clock::now() >= end)
            break;
    }
    line->isServing = false;
    const Progress progress = line->awaited != nullptr ? Progress::later
                              : line->left.empty()     ? Progress::done
                                                       : Progress::more;
    if (progress == Progress::done && line->isBatch() && line->hasAnswers)
        line->answers += ']';
    if (progress == Progress::done || line->answers.size() >= partBytes)
        answer = std::exchange(line->answers, {});
    if (progress == Progress::done)
        letGo(line);
    else
        lines_[line->client] = line;
    return progress;
}

void JsonRpc::serveNext(const std::shared_ptr<Line>& line) {
    const Datum& message = line->left.front();
    const Request request(message);
    line->left = line->left.subspan(1);
    // What replies to a notification, perhaps while a later request of its batch waits, is heard by nobody.
    Text::Reply reply = [line](const Text::Tell&) {};
    if (request.wantsAnswer()) {
        line->awaited = &request.answerId();
        reply = [this, line, id = line->awaited](const Text::Tell& tell) {
            if (line->awaited != id)
                return;
            if (line->isServing)
                return line->answer(tell);
            line->answerLate(tell);
            wake_(line->client);
        };
    }
    try {
        if (!request.fault.empty())
            throw InvalidRequest(request.fault);
        const std::string& method = *request.method->text();
        if (line->isLong && !dispatcher_.takesMuch(method) &&
            Json::lengthOf(message, requestBytes) >= requestBytes)
            throw Refusal(RefusalKind::limit, "a request of method \"" + method.substr(0, 100) +
                                                  "\" has at most " + std::to_string(requestBytes) +
                                                  " bytes");
        if (request.params != nullptr && request.params->record() == nullptr)
            throw Refusal("parameters go by name: \"params\" must be an object");
        dispatcher_.call(line->client, method,
                         request.params == nullptr ? noParams : *request.params->record(), reply);
    } catch (const std::exception&) {
        if (line->awaited != nullptr)
            line->answer(
                [raised = std::current_exception()](Text::Writer&) { std::rethrow_exception(raised); });
    }
}

// What is large takes long to destroy.
void JsonRpc::letGo(std::shared_ptr<Line> line) {
    lines_.erase(line->client);
    if (line->bytes() > longLine)
        worker_.run([line = std::move(line)] {}, [] {});
}

std::size_t JsonRpc::bytesFor(ClientId client) const {
    const auto found = lines_.find(client);
    return found == lines_.end() ? 0 : found->second->bytes();
}

std::string JsonRpc::refusal(TurnedAway reason) {
    switch (reason) {
    case TurnedAway::lineTooLong:
        return errorOf(RpcCode::invalidRequest, "a message has at most " + std::to_string(lineLimit) +
                                                    " bytes; the connection is closed");
    case TurnedAway::tooManyClients:
        return errorOf(
            RpcCode::limitReached,
            "the agent serves as many clients as it can, and none is idle; the connection is closed");
    case TurnedAway::idle:
        break;
    }
    return errorOf(RpcCode::limitReached,
                   "the connection was idle and another client needs its place; it is closed");
}

void JsonRpc::clientGone(ClientId client) {
    if (const auto found = lines_.find(client); found != lines_.end()) {
        found->second->awaited = nullptr; // nobody is left to hear it
        letGo(std::shared_ptr(found->second));
    }
    dispatcher_.clientGone(client);
}

} // namespace Agent
