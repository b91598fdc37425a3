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
    if (message.is_array())
        answerBatch(client, message, out);
    else
        answerOne(client, message, out);
}

void JsonRpc::answerBatch(ClientId client, const Json& batch, std::string& out) {
    if (batch.empty()) {
        appendError(out, nothing, RpcCode::invalidRequest, "the batch is empty");
        return;
    }
    const std::size_t start = out.size();
    for (const Json& request : batch) {
        const std::size_t before = out.size();
        out += before == start ? '[' : ',';
        const bool full = before - start > batchAnswerLimit;
        if (!(full ? passOver(request, out) : answerOne(client, request, out)))
            out.resize(before);
    }
    if (out.size() > start)
        out += ']';
}

/// @return whether there is an answer.
bool JsonRpc::answerOne(ClientId client, const Json& request, std::string& out) {
    if (!request.is_object()) {
        appendError(out, nothing, RpcCode::invalidRequest, "a request is an object");
        return true;
    }
    const Members members = membersOf(request);
    if (const std::string fault = faultOf(members); !fault.empty()) {
        appendError(out, idOf(members.id), RpcCode::invalidRequest, fault);
        return true;
    }
    const bool wanted = members.id != nullptr;
    try {
        if (members.params != nullptr && !members.params->is_object())
            throw RpcError(RpcCode::invalidParams, "parameters go by name: \"params\" must be an object");
        const Json result = dispatcher_.call(client, members.method->get_ref<const std::string&>(),
                                             members.params == nullptr ? noParams : *members.params);
        if (wanted)
            appendResult(out, *members.id, result);
    } catch (const RpcError& error) {
        if (wanted)
            appendError(out, *members.id, error.code(), error.what(), error.data());
    } catch (const std::exception& error) {
        if (wanted)
            appendError(out, *members.id, RpcCode::internalError, error.what());
    }
    return wanted;
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
