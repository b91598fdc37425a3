// The dispatch of the control methods: the table of what there is, parameters checked, errors with their
// place. What the methods do is in ControlMethods.cpp.
#include "agent/ControlService.h"

#include "agent/KernelSource.h"
#include "agent/OperationError.h"
#include "state/Trace.h"

#include <nlohmann/json.hpp>

#include <algorithm>

TRACE_FACILITY("Agent");

namespace Agent {

namespace {

using Type = ParameterType;

constexpr Parameter getParameters[] = {
    {"path", Type::text, true, "what stands in the agent's stores"},
    {"attribute", Type::text, false, "of what stands there; without it all of them"},
    {"key", Type::any, false, "a member of the attribute's collection"},
    {"limit", Type::number, false, "most members to return"},
    {"after", Type::any, false, "the member behind which to begin"},
};
constexpr Parameter setParameters[] = {
    {"path", Type::text, true, "as for get; a table or FIB is made by the first write below its path"},
    {"attribute", Type::text, false, "without it the table or FIB is made, and nothing else"},
    {"key", Type::any, false, "the member, if the attribute is a collection"},
    {"value", Type::any, false, "the value; fields left out keep what they have"},
    {"raw", Type::boolean, false, "whether the guards let it through"},
};
constexpr Parameter delParameters[] = {
    {"path", Type::text, true, "as for get"},
    {"attribute", Type::text, true, "a collection"},
    {"key", Type::any, true, "the member to remove"},
    {"raw", Type::boolean, false, "whether the guards let it through"},
};
constexpr Parameter applyParameters[] = {
    {"changes", Type::array, false, "changes: the parameters of set or del, with op \"set\" or \"del\""},
    {"lines", Type::array, false, "in their place: state commands of the scenario grammar, a line each"},
    {"raw", Type::boolean, false, "whether the guards let the lines through"},
    {"dryRun", Type::boolean, false, "foretell what would happen and change nothing"},
};
constexpr Parameter watchParameters[] = {
    {"since", Type::object, false, "{instance, seq} of the last change heard"},
};
constexpr Parameter commandParameters[] = {
    {"line", Type::text, true, "one line of the scenario grammar"},
    {"raw", Type::boolean, false, "whether the guards let it through"},
    {"text", Type::boolean, false, "send the result also as a person reads it"},
};
constexpr Parameter schemaParameters[] = {
    {"type", Type::text, false, "one entity type or value type only"},
};
constexpr Parameter kernelParameters[] = {
    {"verify", Type::boolean, false, "compare a fresh dump with the tables"},
};
constexpr Parameter traceParameters[] = {
    {"facility", Type::text, false, "whose level is meant"},
    {"level", Type::number, false, "up to which its lines are printed, 0 to 9"},
    {"last", Type::number, false, "so many of the latest trace records instead"},
};

RpcError toRpcError(const OperationError& error) {
    nlohmann::json data = nlohmann::json::object();
    const Where& where = error.where();
    const auto tell = [&](const char* name, const std::string& value) {
        if (!value.empty())
            data[name] = value;
    };
    tell("path", where.path);
    tell("attribute", where.attribute);
    tell("field", where.field);
    if (where.index)
        data["index"] = *where.index;
    return {error.code(), error.what(), std::move(data)};
}

} // namespace

std::span<const ControlService::Method> ControlService::table() {
    static constexpr Method methods[] = {
        {{"get", "reads an attribute, a member or everything at a path", getParameters},
         &ControlService::get},
        {{"set", "writes an attribute or a member", setParameters}, &ControlService::set},
        {{"del", "removes a member", delParameters}, &ControlService::del},
        {{"apply", "checks all changes, then carries all out", applyParameters}, &ControlService::apply},
        {{"watch", "tells answers as they change", watchParameters}, &ControlService::watch},
        {{"unwatch", "ends watch", {}}, &ControlService::unwatch},
        {{"command", "runs a line of the scenario grammar", commandParameters}, &ControlService::command},
        {{"schema", "describes types, paths and methods", schemaParameters}, &ControlService::schema},
        {{"status", "how the agent fares", {}}, &ControlService::status},
        {{"kernel", "the state of the kernel source", kernelParameters}, &ControlService::kernel},
        {{"trace", "trace levels, or the latest trace records", traceParameters}, &ControlService::trace},
    };
    return methods;
}

std::vector<MethodDescription> ControlService::methods() {
    return {table().begin(), table().end()};
}

nlohmann::json ControlService::call(ClientId client, const std::string& method, const Json& params) {
    State::traceEventBegin();
    ++requests_;
    const auto found = std::ranges::find(table(), std::string_view(method), &Method::name);
    if (found == table().end()) {
        std::string names;
        for (const Method& known : table())
            names += (names.empty() ? "" : ", ") + std::string(known.name);
        throw RpcError(RpcCode::methodNotFound, "there is no method \"" + method + "\"; there are " + names);
    }
    TRACE(8, "ControlService::", "call", " method=", method);
    checkParameters(params, found->parameters, "method \"" + method + "\"");
    try {
        Json result = (this->*found->carryOut)(client, params);
        watchers_.tell(); // before the answer, so that who waits for the answer has heard what it caused
        return result;
    } catch (const OperationError& error) {
        throw toRpcError(error);
    }
}

bool ControlService::takesLong(const std::string& method, const Json& params) const {
    return method == "kernel" && kernel_ != nullptr && params == Json{{"verify", true}};
}

void ControlService::begin(ClientId /*client*/, const Json& /*params*/, const Reply& reply) {
    State::traceEventBegin();
    ++requests_;
    TRACE(8, "ControlService::", "begin", " method=kernel");
    kernel_->verify(reply);
}

void ControlService::serverIs(LineServer* server) {
    server_ = server;
    watchers_.serverIs(server);
}

void ControlService::clientGone(ClientId client) {
    watchers_.unwatch(client);
    if (onClientGone_)
        onClientGone_(client);
}

} // namespace Agent
