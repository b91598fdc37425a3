#include "agent/control/JsonRpc.h"

#include "agent/host/Refusal.h"
#include "agent/json/Json.h"
#include "text/JsonWriter.h"

#include <exception>
#include <optional>
#include <utility>

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

const Datum noId;
const Datum::Record noParams;

int codeOf(RefusalKind kind) {
    constexpr int codes[] = {RpcCode::invalidParams, RpcCode::guardRefuses, RpcCode::limitReached,
                             RpcCode::expectationFailed};
    return codes[static_cast<std::size_t>(kind)];
}

// Tells the parts of the place that are there as `data`; without any nothing.
void writePlace(Text::Writer& writer, const Where& where) {
    bool isBegun = false;
    const auto tell = [&](std::string_view name, const auto& part, bool isThere) {
        if (isThere && !std::exchange(isBegun, true)) {
            writer.field("data");
            writer.beginRecord();
        }
        if (isThere)
            writer.member(name, part);
    };
    const auto tellText = [&](std::string_view name, const std::string& text) {
        tell(name, text, !text.empty());
    };
    const auto tellNumber = [&](std::string_view name, std::optional<std::size_t> number) {
        tell(name, number.value_or(0), number.has_value());
    };
    tellText("path", where.path);
    tellText("attribute", where.attribute);
    tellText("field", where.field);
    tellNumber("index", where.index);
    tellNumber("line", where.line);
    tellNumber("word", where.word);
    tellText("expected", where.expected);
    tellText("actual", where.actual);
    if (isBegun)
        writer.end();
}

void beginAnswer(Text::Writer& writer, const Datum& id) {
    writer.beginRecord();
    writer.member("jsonrpc", "2.0");
    writer.field("id");
    Json::write(writer, id);
}

void appendError(std::string& out, const Datum& id, int code, std::string_view message,
                 const Where& where = {}) {
    Text::JsonWriter writer(out);
    beginAnswer(writer, id);
    writer.field("error");
    writer.beginRecord();
    writer.member("code", code);
    writer.member("message", message);
    writePlace(writer, where);
    writer.end();
    writer.end();
}

// Answers with what has been raised.
void appendRaised(std::string& out, const Datum& id) {
    try {
        throw;
    } catch (const Refusal& refusal) {
        appendError(out, id, codeOf(refusal.kind()), refusal.what(), refusal.where());
    } catch (const UnknownMethod& error) {
        appendError(out, id, RpcCode::methodNotFound, error.what());
    } catch (const std::exception& error) {
        appendError(out, id, RpcCode::internalError, error.what());
    }
}

void appendResult(std::string& out, const Datum& id, const Text::Tell& tell) {
    const std::size_t before = out.size();
    try {
        Text::JsonWriter writer(out);
        beginAnswer(writer, id);
        writer.field("result");
        tell(writer);
        writer.end();
    } catch (const std::exception&) {
        out.resize(before);
        appendRaised(out, id);
    }
}

bool isId(const Datum& id) {
    return id.isNull() || id.text() != nullptr || id.number() != nullptr || id.real() != nullptr ||
           std::holds_alternative<std::int64_t>(id.content);
}

// A request's members; those that may be left out are null then.
struct Members {
    const Datum* version = nullptr;
    const Datum* method = nullptr;
    const Datum* id = nullptr;
    const Datum* params = nullptr;
    std::string fault = {}; // what is wrong beside the parameters; empty when nothing is

    explicit Members(const Datum& request);
    // The id under which a faulty request is answered.
    const Datum& answerId() const { return id != nullptr && isId(*id) ? *id : noId; }

  private:
    void take(const std::string& name, const Datum& value);
};

Members::Members(const Datum& request) {
    if (request.record() == nullptr) {
        fault = "a request is an object";
        return;
    }
    for (const auto& [name, value] : *request.record())
        take(name, value);
    if (!fault.empty())
        return;
    if (version == nullptr || *version != Datum("2.0"))
        fault = R"(member "jsonrpc" must be "2.0")";
    else if (method == nullptr || method->text() == nullptr)
        fault = R"(member "method" must be a string)";
    else if (id != nullptr && !isId(*id))
        fault = R"(member "id" must be a string, a number or null)";
}

void Members::take(const std::string& name, const Datum& value) {
    const Datum** const member = name == "jsonrpc"  ? &version
                                 : name == "id"     ? &id
                                 : name == "method" ? &method
                                 : name == "params" ? &params
                                                    : nullptr;
    if (member == nullptr)
        fault = "unknown member \"" + name + "\": a request has jsonrpc, id, method and params";
    else if (std::exchange(*member, &value) != nullptr)
        fault = "member \"" + name + "\" is given twice";
}

} // namespace

// A line that is being answered: a request, or a batch, whose answers leave together.
struct JsonRpc::Line {
    ClientId client = 0;
    Datum message = {};
    std::size_t next = 0; // of a batch: the request that is served next
    Datum id = {};        // of the request that was served last
    bool isWanted = true; // an answer to it
    bool isReplied = false;
    bool isWaiting = false;     // for the reply
    std::string* out = nullptr; // where the answers go: the caller's, or `kept` once the line waits
    std::size_t begin = 0;      // where they begin there
    std::string kept = {};
};

JsonRpc::JsonRpc(Dispatcher& dispatcher, Finish finish)
    : dispatcher_(dispatcher)
    , finish_(std::move(finish)) {}

JsonRpc::~JsonRpc() = default;

bool JsonRpc::serve(ClientId client, std::string_view text, std::string& out) {
    const auto line = std::make_shared<Line>(Line{.client = client, .out = &out, .begin = out.size()});
    try {
        line->message = Json::parse(text);
    } catch (const Json::Error& error) {
        appendError(out, noId, RpcCode::parseError, error.what());
        return true;
    }
    if (goOn(line))
        return true;
    line->kept = out.substr(line->begin);
    line->out = &line->kept;
    line->begin = 0;
    waiting_[client] = line;
    return false;
}

// Serves what is left of a line. @return false when it waits for a reply.
bool JsonRpc::goOn(const std::shared_ptr<Line>& line) {
    const Datum::List* batch = line->message.list();
    if (batch == nullptr)
        return line->isReplied || answerOne(line, line->message);
    std::string& out = *line->out;
    if (batch->empty()) {
        appendError(out, noId, RpcCode::invalidRequest, "the batch is empty");
        return true;
    }
    while (line->next < batch->size())
        if (!answerOne(line, (*batch)[line->next++]))
            return false;
    if (out.size() > line->begin)
        out += ']';
    return true;
}

// @return false when the line waits for the reply.
bool JsonRpc::answerOne(const std::shared_ptr<Line>& line, const Datum& request) {
    const Members members(request);
    line->id = members.answerId();
    line->isWanted = members.id != nullptr || !members.fault.empty();
    line->isReplied = false;
    if (!members.fault.empty())
        return answered(*line, [&](std::string& out) {
            appendError(out, line->id, RpcCode::invalidRequest, members.fault);
        });
    if (line->out->size() - line->begin > batchAnswerLimit)
        return answered(*line, [&](std::string& out) {
            appendError(out, line->id, RpcCode::limitReached,
                        "not carried out: the answers of this batch have grown too large");
        });
    // What replies to a notification, perhaps while a later request of its batch waits, is heard by nobody.
    Text::Reply reply = [](const Text::Tell&) {};
    if (line->isWanted)
        reply = [this, line](const Text::Tell& tell) { replied(line, tell); };
    try {
        if (members.params != nullptr && members.params->record() == nullptr)
            throw Refusal("parameters go by name: \"params\" must be an object");
        dispatcher_.call(line->client, *members.method->text(),
                         members.params == nullptr ? noParams : *members.params->record(), reply);
    } catch (const std::exception&) {
        return line->isReplied || answered(*line, [&](std::string& out) { appendRaised(out, line->id); });
    }
    line->isWaiting = line->isWanted && !line->isReplied;
    return !line->isWaiting;
}

// Appends an answer to those of the line, where one is wanted. @return true: the request has been served.
template <class Append>
bool JsonRpc::answered(Line& line, Append append) {
    line.isReplied = true;
    if (!line.isWanted)
        return true;
    if (line.message.list() != nullptr)
        *line.out += line.out->size() == line.begin ? '[' : ',';
    append(*line.out);
    return true;
}

void JsonRpc::replied(const std::shared_ptr<Line>& line, const Text::Tell& tell) {
    if (line->isReplied)
        return;
    answered(*line, [&](std::string& out) { appendResult(out, line->id, tell); });
    if (!std::exchange(line->isWaiting, false) || !goOn(line))
        return;
    if (const auto found = waiting_.find(line->client); found != waiting_.end() && found->second == line) {
        waiting_.erase(found);
        finish_(line->client, line->kept);
    }
}

void JsonRpc::refusal(TurnedAway reason, std::string& out) {
    if (reason == TurnedAway::lineTooLong)
        appendError(out, noId, RpcCode::invalidRequest,
                    "a message has at most " + std::to_string(lineLimit) +
                        " bytes; the connection is closed");
    else
        appendError(out, noId, RpcCode::limitReached,
                    "the agent serves " + std::to_string(clientLimit) +
                        " clients already; the connection is closed");
}

void JsonRpc::clientGone(ClientId client) {
    if (const auto found = waiting_.find(client); found != waiting_.end()) {
        found->second->isReplied = true; // nobody is left to hear it
        waiting_.erase(found);
    }
    dispatcher_.clientGone(client);
}

} // namespace Agent
