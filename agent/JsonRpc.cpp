#include "agent/JsonRpc.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <exception>

namespace Agent {

namespace {

using Json = nlohmann::json;

const Json nothing;
const Json noParams = Json::object();

/// A parser's message quotes what it read last, which may be the whole line.
constexpr std::size_t parseMessageLimit = 200;

/// Bytes that are no UTF-8 (a name from elsewhere) leave as U+FFFD.
std::string textOf(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void appendError(std::string& out, const Json& id, int code, const std::string& message,
                 const Json* data = nullptr) {
    out += R"({"jsonrpc":"2.0","id":)";
    out += textOf(id);
    out += R"(,"error":{"code":)";
    out += std::to_string(code);
    out += R"(,"message":)";
    out += textOf(message);
    if (data != nullptr) {
        out += R"(,"data":)";
        out += textOf(*data);
    }
    out += "}}";
}

void appendResult(std::string& out, const Json& id, const Json& result) {
    out += R"({"jsonrpc":"2.0","id":)";
    out += textOf(id);
    out += R"(,"result":)";
    out += textOf(result);
    out += '}';
}

/// Whether arrays and objects nest deeper than the limit. Up to the first fault of a text this counts as a
/// parser does, so that no parser meets a deeper level.
bool tooDeep(std::string_view text) {
    if (std::count(text.begin(), text.end(), '[') + std::count(text.begin(), text.end(), '{') <=
        JsonRpc::depthLimit)
        return false; // nearly every line: no need to look closer
    int depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        switch (text[i]) {
        case '"':
            inString = !inString;
            break;
        case '\\':
            if (inString)
                ++i;
            break;
        case '[':
        case '{':
            if (!inString && ++depth > JsonRpc::depthLimit)
                return true;
            break;
        case ']':
        case '}':
            if (!inString)
                --depth;
            break;
        default:
            break;
        }
    }
    return false;
}

std::string parseMessage(const Json::exception& error) {
    std::string text = error.what();
    if (const std::size_t prefix = text.find("] "); prefix != std::string::npos)
        text.erase(0, prefix + 2);
    if (text.size() > parseMessageLimit) {
        text.resize(parseMessageLimit);
        text += "...";
    }
    return "not JSON: " + text;
}

/// A request's members; those that may be left out are null then.
struct Members {
    const Json* version = &nothing;
    const Json* method = &nothing;
    const Json* id = nullptr;
    const Json* params = nullptr;
    const std::string* unknown = nullptr; // the name of a member that has no business there
};

Members membersOf(const Json& request) {
    Members members;
    for (auto member = request.begin(); member != request.end(); ++member) {
        const std::string& name = member.key();
        if (name == "jsonrpc")
            members.version = &*member;
        else if (name == "id")
            members.id = &*member;
        else if (name == "method")
            members.method = &*member;
        else if (name == "params")
            members.params = &*member;
        else
            members.unknown = &name;
    }
    return members;
}

bool isId(const Json& id) {
    return id.is_string() || id.is_number() || id.is_null();
}

/// What is wrong with a request beside its parameters; empty when nothing is.
std::string faultOf(const Members& members) {
    if (members.unknown != nullptr)
        return "unknown member \"" + *members.unknown + "\": a request has jsonrpc, id, method and params";
    if (!members.version->is_string() || members.version->get_ref<const std::string&>() != "2.0")
        return R"(member "jsonrpc" must be "2.0")";
    if (!members.method->is_string())
        return R"(member "method" must be a string)";
    if (members.id != nullptr && !isId(*members.id))
        return R"(member "id" must be a string, a number or null)";
    return {};
}

/// The id under which a faulty request is answered.
const Json& idOf(const Json* id) {
    return id != nullptr && isId(*id) ? *id : nothing;
}

/// Answers a request of a batch that is full.
/// @return whether there is an answer.
bool passOver(const Json& request, std::string& out) {
    const Json* id = request.is_object() && request.contains("id") ? &request["id"] : nullptr;
    if (request.is_object() && id == nullptr)
        return false;
    appendError(out, idOf(id), RpcCode::limitReached,
                "not carried out: the answers of this batch have grown too large");
    return true;
}

} // namespace

RpcError::RpcError(int code, const std::string& message)
    : std::runtime_error(message)
    , code_(code) {}

RpcError::RpcError(int code, const std::string& message, nlohmann::json data)
    : std::runtime_error(message)
    , code_(code)
    , data_(std::make_shared<const Json>(std::move(data))) {}

/// A line that waits for a result: of its one request, or of number `next` of a batch.
struct JsonRpc::Line {
    Json message;
    std::size_t next = 0;
    std::string out = {}; // the answers so far
};

JsonRpc::JsonRpc(Dispatcher& dispatcher)
    : dispatcher_(dispatcher) {}

JsonRpc::~JsonRpc() = default;

void JsonRpc::answer(ClientId client, std::string_view line, std::string& out) {
    if (tooDeep(line)) {
        appendError(out, nothing, RpcCode::parseError,
                    "arrays and objects nest deeper than " + std::to_string(depthLimit) + " levels");
        return;
    }
    Json message;
    try {
        message = Json::parse(line.begin(), line.end());
    } catch (const Json::exception& error) {
        appendError(out, nothing, RpcCode::parseError, parseMessage(error));
        return;
    }
    if (!message.is_array()) {
        if (answerOne(client, message, out) == Answered::later)
            waiting_[client] = std::make_unique<Line>(Line{.message = std::move(message)});
        return;
    }
    if (message.empty()) {
        appendError(out, nothing, RpcCode::invalidRequest, "the batch is empty");
        return;
    }
    Line batch{.message = std::move(message)};
    if (answerBatch(client, batch))
        out += batch.out;
    else
        waiting_[client] = std::make_unique<Line>(std::move(batch));
}

/// Goes on with a batch. @return false when it waits for a result.
bool JsonRpc::answerBatch(ClientId client, Line& line) {
    std::string& out = line.out;
    for (; line.next < line.message.size(); ++line.next) {
        const Json& request = line.message[line.next];
        const std::size_t before = out.size();
        if (before > batchAnswerLimit) {
            out += ',';
            if (!passOver(request, out))
                out.resize(before);
            continue;
        }
        out += before == 0 ? '[' : ',';
        const Answered answered = answerOne(client, request, out);
        if (answered == Answered::later)
            return false;
        if (answered == Answered::no)
            out.resize(before);
    }
    if (!out.empty())
        out += ']';
    return true;
}

void JsonRpc::replied(ClientId client, const Json& result) {
    const auto found = waiting_.find(client);
    if (found == waiting_.end() || server_ == nullptr)
        return; // nobody waits any more
    Line& line = *found->second;
    const bool isBatch = line.message.is_array();
    appendResult(line.out, (isBatch ? line.message[line.next] : line.message)["id"], result);
    ++line.next;
    if (isBatch && !answerBatch(client, line))
        return;
    server_->answer(client, std::move(line.out));
    waiting_.erase(found);
}

void JsonRpc::clientGone(ClientId client) {
    waiting_.erase(client);
    dispatcher_.clientGone(client);
}

JsonRpc::Answered JsonRpc::answerOne(ClientId client, const Json& request, std::string& out) {
    if (!request.is_object()) {
        appendError(out, nothing, RpcCode::invalidRequest, "a request is an object");
        return Answered::yes;
    }
    const Members members = membersOf(request);
    if (const std::string fault = faultOf(members); !fault.empty()) {
        appendError(out, idOf(members.id), RpcCode::invalidRequest, fault);
        return Answered::yes;
    }
    const bool wanted = members.id != nullptr;
    try {
        if (members.params != nullptr && !members.params->is_object())
            throw RpcError(RpcCode::invalidParams, "parameters go by name: \"params\" must be an object");
        const std::string& method = members.method->get_ref<const std::string&>();
        const Json& params = members.params == nullptr ? noParams : *members.params;
        if (wanted && server_ != nullptr && dispatcher_.takesLong(method, params)) {
            dispatcher_.begin(client, params,
                              [this, client](const Json& result) { replied(client, result); });
            server_->answerLater(client);
            return Answered::later;
        }
        const Json result = dispatcher_.call(client, method, params);
        if (wanted)
            appendResult(out, *members.id, result);
    } catch (const RpcError& error) {
        if (wanted)
            appendError(out, *members.id, error.code(), error.what(), error.data());
    } catch (const std::exception& error) {
        if (wanted)
            appendError(out, *members.id, RpcCode::internalError, error.what());
    }
    return wanted ? Answered::yes : Answered::no;
}

void JsonRpc::refusal(Refusal reason, std::string& out) {
    if (reason == Refusal::lineTooLong)
        appendError(out, nothing, RpcCode::invalidRequest,
                    "a message has at most " + std::to_string(LineServer::lineLimit) +
                        " bytes; the connection is closed");
    else
        appendError(out, nothing, RpcCode::limitReached,
                    "the agent serves " + std::to_string(LineServer::clientLimit) +
                        " clients already; the connection is closed");
}

std::string JsonRpc::notification(std::string_view method, const nlohmann::json& params) {
    std::string line = R"({"jsonrpc":"2.0","method":)";
    line += textOf(method);
    line += R"(,"params":)";
    line += textOf(params);
    line += '}';
    return line;
}

} // namespace Agent
