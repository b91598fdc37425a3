// What the control methods do. Their parameters have been checked for names and types (ControlService.cpp).
#include "agent/ControlService.h"
#include "agent/Grammar.h"
#include "agent/JsonDatum.h"
#include "agent/KernelSource.h"
#include "agent/OperationError.h"
#include "agent/Schema.h"
#include "agent/StatusReport.h"
#include "state/Errors.h"
#include "state/Trace.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace Agent {

namespace {

using Json = nlohmann::json;
using State::Datum;

/// A key, value or `after` as plain data.
std::optional<Datum> datumOf(const Json& params, std::string_view name) {
    const Json* value = given(params, name);
    if (value == nullptr)
        return std::nullopt;
    try {
        return toDatum(*value);
    } catch (const std::invalid_argument& error) {
        throw OperationError(RpcCode::invalidParams, error.what(),
                             {.path = textOr(params, "path", ""),
                              .attribute = textOr(params, "attribute", ""),
                              .field = std::string(name)});
    }
}

Change changeOf(const Json& params, Change::Op op) {
    return {.op = op,
            .path = textOr(params, "path", ""),
            .attribute = textOr(params, "attribute", ""),
            .key = datumOf(params, "key"),
            .value = datumOf(params, "value"),
            .raw = isTrue(params, "raw")};
}

[[noreturn]] void refuse(std::string_view field, const std::string& message,
                         int code = RpcCode::invalidParams) {
    throw RpcError(code, message, {{"field", field}});
}

Json toJson(const std::vector<AnswerChange>& changes) {
    Json list = Json::array();
    for (const AnswerChange& change : changes)
        list.push_back(toJson(change));
    return list;
}

std::string versionText() {
    return KESTREL_VERSION;
}

/// Adds to an error that a line of a list is meant.
[[noreturn]] void rethrowAtLine(const OperationError& error, const LineChanges& list) {
    const std::size_t line = list.lines.at(error.where().index.value_or(0));
    Json data = {{"path", error.where().path}, {"attribute", error.where().attribute}, {"line", line}};
    if (!error.where().field.empty())
        data["field"] = error.where().field;
    throw RpcError(error.code(), "line " + std::to_string(line) + ": " + error.what(), std::move(data));
}

std::vector<std::string> linesOf(const Json& list) {
    std::vector<std::string> lines;
    for (const Json& line : list) {
        if (!line.is_string())
            refuse("lines", "lines are strings");
        lines.push_back(line);
    }
    return lines;
}

} // namespace

Json ControlService::get(ClientId /*client*/, const Json& params) {
    const std::string path = params.at("path");
    if (const Json* attribute = given(params, "attribute"))
        return attributeValue(path, attribute->get_ref<const std::string&>(), params);
    if (given(params, "key") != nullptr || given(params, "after") != nullptr)
        refuse("attribute", "a key is that of an attribute's member: name the attribute");
    Json all = Json::object();
    for (const auto& attribute : operations_.typeAt(path).attributes())
        all[std::string(attribute->name())] = attributeValue(path, attribute->name(), params);
    return all;
}

Json ControlService::attributeValue(const std::string& path, std::string_view name,
                                    const Json& params) const {
    const std::optional<Datum> key = datumOf(params, "key");
    const State::AttributeKind kind = operations_.attributeAt(path, name).kind();
    if (key || kind == State::AttributeKind::value) {
        const auto value = operations_.value(path, name, key ? &*key : nullptr);
        return value ? Agent::toJson(*value) : Json();
    }
    const std::optional<Datum> after = datumOf(params, "after");
    const Json* limit = given(params, "limit");
    const std::size_t most = limit == nullptr ? pageLimit : limit->get<std::size_t>();
    if (most > pageLimit)
        refuse("limit", "an answer has at most " + std::to_string(pageLimit) + " members");
    const Page page = operations_.members(path, name, after ? &*after : nullptr, most);
    if (limit == nullptr && page.size > pageLimit) {
        refuse("limit",
               std::string(name) + " at " + path + " has " + std::to_string(page.size) +
                   " members, more than fit one answer: read them in pages, with limit and after",
               RpcCode::limitReached);
    }
    Json list = Json::array();
    for (const auto& [member, value] : page.members)
        if (kind == State::AttributeKind::set)
            list.push_back(Agent::toJson(member));
        else
            list.push_back({{"key", Agent::toJson(member)}, {"value", Agent::toJson(value)}});
    return list;
}

Json ControlService::set(ClientId /*client*/, const Json& params) {
    return {{"changed", operations_.change(changeOf(params, Change::Op::set))}};
}

Json ControlService::del(ClientId /*client*/, const Json& params) {
    return {{"changed", operations_.change(changeOf(params, Change::Op::del))}};
}

std::vector<Change> ControlService::listedChanges(const Json& list) const {
    std::vector<Change> changes;
    changes.reserve(list.size());
    for (const Json& item : list) {
        const std::string owner = "change " + std::to_string(changes.size());
        if (!item.is_object())
            refuse("changes", owner + " is no object");
        try {
            checkParameters(item, changeParameters(), owner);
            const std::string& op = item.at("op").get_ref<const std::string&>();
            if (op != "set" && op != "del")
                refuse("op", owner + ": op is \"set\" or \"del\"");
            changes.push_back(changeOf(item, op == "set" ? Change::Op::set : Change::Op::del));
        } catch (const RpcError& error) {
            Json data = error.data() == nullptr ? Json::object() : *error.data();
            data["index"] = changes.size();
            throw RpcError(error.code(), error.what(), std::move(data));
        } catch (OperationError& error) {
            error.indexIs(changes.size());
            throw;
        }
    }
    return changes;
}

Json ControlService::apply(ClientId /*client*/, const Json& params) {
    const Json* listed = given(params, "changes");
    const Json* lines = given(params, "lines");
    if ((listed != nullptr) == (lines != nullptr))
        refuse("changes", "apply takes either changes or lines");
    if (listed != nullptr && given(params, "raw") != nullptr)
        refuse("raw", "each change says itself whether it is raw");
    if (lines != nullptr && grammar_ == nullptr)
        refuse("lines", "this agent has no grammar for lines", RpcCode::limitReached);
    const LineChanges list = listed != nullptr ? LineChanges{listedChanges(*listed), {}}
                                               : grammar_->changes(linesOf(*lines), isTrue(params, "raw"));
    try {
        if (!isTrue(params, "dryRun")) {
            const ApplyResult result = operations_.apply(list.changes);
            return {{"changed", result.changed}, {"answers", toJson(result.answers)}};
        }
        const DryRunResult result = operations_.dryRun(list.changes);
        return result.fatal ? Json{{"assertion", *result.fatal}}
                            : Json{{"changed", result.changed}, {"answers", toJson(result.answers)}};
    } catch (const OperationError& error) {
        if (lines == nullptr || !error.where().index)
            throw;
        rethrowAtLine(error, list);
    }
}

Json ControlService::watch(ClientId client, const Json& params) {
    Json result = {{"instance", log_.instance()}, {"seq", log_.last()}};
    const Json* since = given(params, "since");
    const Json missed = since == nullptr ? Json() : missedChanges(*since);
    if (missed.is_array()) {
        result["changes"] = missed;
    } else {
        if (since != nullptr)
            result["lost"] = true;
        Json snapshot = Json::array();
        for (const RawAnswer& answer : log_.snapshot())
            snapshot.push_back(Agent::toJson(answer.change()));
        result["snapshot"] = std::move(snapshot);
    }
    watchers_.watch(client, log_.last());
    return result;
}

/// The changes after the one that `since` names; null when they are no longer all held, or it names another
/// run of the agent.
Json ControlService::missedChanges(const Json& since) const {
    static constexpr Parameter parts[] = {
        {"instance", ParameterType::text, true, ""},
        {"seq", ParameterType::number, true, ""},
    };
    checkParameters(since, parts, "\"since\"");
    const auto heard = since.at("seq").get<std::uint64_t>();
    if (since.at("instance") != log_.instance() || heard > log_.last() || heard + 1 < log_.oldest())
        return {};
    Json changes = Json::array();
    for (std::uint64_t seq = heard + 1; seq <= log_.last(); ++seq) {
        Json change = Agent::toJson(log_.change(seq).change());
        change["seq"] = seq;
        changes.push_back(std::move(change));
    }
    return changes;
}

Json ControlService::unwatch(ClientId client, const Json& /*params*/) {
    watchers_.unwatch(client);
    return Json::object();
}

Json ControlService::command(ClientId /*client*/, const Json& params) {
    if (grammar_ == nullptr)
        refuse("line", "this agent has no grammar for lines", RpcCode::limitReached);
    Json answer;
    answer["result"] = grammar_->run(params.at("line").get_ref<const std::string&>(), isTrue(params, "raw"));
    if (isTrue(params, "text"))
        answer["text"] = grammar_->text(answer["result"]);
    return answer;
}

Json ControlService::schema(ClientId /*client*/, const Json& params) {
    const Json* type = given(params, "type");
    return type != nullptr ? schemaOfType(*type) : schemaOf(methods());
}

// Not const, as it stands in the table of the methods.
// NOLINTNEXTLINE(readability-make-member-function-const)
Json ControlService::status(ClientId /*client*/, const Json& /*params*/) {
    return statusReport();
}

Json ControlService::statusReport() const {
    const Host& host = operations_.host();
    const std::chrono::duration<double> uptime = std::chrono::steady_clock::now() - started_;
    return {{"version", versionText()},
            {"instance", log_.instance()},
            {"uptimeSeconds", static_cast<std::uint64_t>(uptime.count())},
            {"toggles", togglesReport()},
            {"fibSource", host.isLumen() ? "lumen" : "quill"},
            {"sources", sources_},
            {"ready", readyReport(host)},
            {"sizes", sizesReport(host)},
            {"tables", tablesReport(host)},
            {"counters", counters()}};
}

Json ControlService::counters() const {
    return {{"requests", requests_},
            {"changes", operations_.counters().changes},
            {"refused", operations_.counters().refused},
            {"clients", server_ == nullptr ? 0 : server_->clients()},
            {"cutOff", server_ == nullptr ? 0 : server_->cutOff()},
            {"watchers", watchers_.size()},
            {"answerSeq", log_.last()},
            {"answersOldest", log_.oldest()},
            {"traceNext", State::traceNext()},
            {"traceOldest", State::traceOldest()}};
}

Json ControlService::kernel(ClientId /*client*/, const Json& params) {
    if (kernel_ == nullptr) {
        throw RpcError(RpcCode::limitReached,
                       "there is no kernel source: the agent was started without --kernel");
    }
    // A comparison is begun (takesLong) where somebody waits for its result, and left out where nobody does.
    return isTrue(params, "verify") ? Json() : kernel_->status();
}

Json ControlService::trace(ClientId /*client*/, const Json& params) {
    const Json* facility = given(params, "facility");
    const Json* level = given(params, "level");
    if (const Json* last = given(params, "last")) {
        if (facility != nullptr || level != nullptr)
            refuse("last", "either the latest records are wanted, or levels");
        Json records = Json::array();
        for (const State::TraceRecord& record : State::traceRecordsLast(last->get<std::size_t>())) {
            records.push_back({{"n", record.n},
                               {"time", record.time},
                               {"level", record.level},
                               {"facility", record.facility},
                               {"file", record.file},
                               {"line", record.line},
                               {"function", record.function},
                               {"message", record.message}});
        }
        return {{"records", std::move(records)}};
    }
    if (level != nullptr && facility == nullptr)
        refuse("facility", "a level is that of a facility: name it");
    if (level != nullptr && *level > 9)
        refuse("level", "levels run from 0 to 9");
    Json levels = Json::array();
    for (const State::TraceLevel& known : State::traceLevels()) {
        if (facility == nullptr || *facility == known.facility) {
            levels.push_back({{"facility", known.facility},
                              {"level", level == nullptr ? known.level : level->get<int>()},
                              {"loaded", known.isLoaded}});
        }
    }
    if (facility != nullptr && levels.empty())
        refuse("facility", "there is no trace facility \"" + facility->get<std::string>() + "\"");
    if (level != nullptr)
        State::traceLevelIs(facility->get_ref<const std::string&>(), level->get<int>());
    return {{"levels", std::move(levels)}};
}

} // namespace Agent
