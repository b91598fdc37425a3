#include "agent/ScenarioGrammar.h"

#include "agent/JsonDatum.h"
#include "agent/JsonRpc.h"
#include "agent/OperationError.h"
#include "agent/ShowCommands.h"
#include "state/Errors.h"
#include "state/Trace.h"

#include <nlohmann/json.hpp>

#include <fstream>
#include <iostream>

namespace Agent {

using nlohmann::json;

namespace {

std::vector<std::string> linesOf(const std::string& file) {
    std::ifstream in(file);
    if (!in)
        throw std::runtime_error(file + ": cannot be read");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::string place(const std::string& file, std::size_t number) {
    return file + ":" + std::to_string(number) + ": ";
}

json answersJson(const Operations& operations, const std::vector<AnswerChange>& answers) {
    json list = json::array();
    for (const AnswerChange& answer : answers) {
        json entry = toJson(answer);
        if (const auto name = operations.vrfNameOf(entry["key"]["vrfId"].get<std::uint32_t>()))
            entry["vrf"] = *name;
        list.push_back(std::move(entry));
    }
    return list;
}

} // namespace

ScenarioGrammar::ScenarioGrammar(Operations& operations, Hooks hooks, std::ostream& out)
    : operations_(operations)
    , hooks_(std::move(hooks))
    , out_(out)
    , expectations_(operations) {}

json ScenarioGrammar::run(std::string_view line, bool raw) {
    auto words = splitWords(line);
    if (words.empty())
        throw OperationError(RpcCode::invalidParams, "the line holds no command");
    std::vector<Change> changes;
    if (StateCommands(operations_).compile(words, raw, changes)) {
        const ApplyResult result = operations_.apply(changes);
        return {{"changed", result.changed}, {"answers", answersJson(operations_, result.answers)}};
    }
    return runOther(std::move(words));
}

json ScenarioGrammar::runOther(std::vector<std::string> given) {
    WordReader words(std::move(given));
    if (words.accept("expect")) {
        hooks_.settle();
        return expectations_.expect(words);
    }
    if (words.accept("mark")) {
        words.expectEnd();
        expectations_.mark();
        return {{"marked", State::traceNext()}};
    }
    if (words.accept("show")) {
        const std::string what = words.word("what to show");
        words.expectEnd();
        if (what == "status")
            return {{"show", what}, {"status", hooks_.status ? hooks_.status() : json::object()}};
        if (!isShown(what)) {
            throw OperationError(
                RpcCode::invalidParams,
                "cannot show '" + what +
                    "'; mroute, mgroup, vrfs, routes, requests, groups and status can be shown");
        }
        return show(operations_, what);
    }
    if (words.accept("get"))
        return get(words);
    if (words.accept("trace"))
        return trace(words);
    words.refuse("a command (vrf, route, request, group, egress, expect, mark, show, set, del, get, trace)");
}

json ScenarioGrammar::get(WordReader& words) const {
    const std::string path = words.word("a path");
    const std::string attribute = words.word("an attribute");
    const auto kind = operations_.attributeAt(path, attribute).kind();
    if (kind != State::AttributeKind::value && words.atEnd()) {
        json members = json::array();
        for (const auto& [key, value] : operations_.members(path, attribute).members) {
            members.push_back(kind == State::AttributeKind::set
                                  ? toJson(key)
                                  : json{{"key", toJson(key)}, {"value", toJson(value)}});
        }
        return {{"value", std::move(members)}};
    }
    std::optional<State::Datum> key;
    if (kind != State::AttributeKind::value)
        key = datumOfWord(words.word("a key"));
    words.expectEnd();
    const auto value = operations_.value(path, attribute, key ? &*key : nullptr);
    if (!value) {
        throw OperationError(RpcCode::invalidParams, "there is no such member",
                             {.path = path, .attribute = attribute});
    }
    return {{"value", toJson(*value)}};
}

json ScenarioGrammar::trace(WordReader& words) const {
    if (words.accept("last")) {
        const std::uint64_t count = words.number("how many records", 1'000'000);
        words.expectEnd();
        json records = json::array();
        for (const State::TraceRecord& record : State::traceRecordsLast(count)) {
            std::string line;
            State::appendTraceLine(line, record);
            records.push_back(line);
        }
        return {{"records", std::move(records)}};
    }
    if (!words.atEnd()) {
        const std::string facility = words.word("a facility");
        const auto level = words.number("a level", 9);
        words.expectEnd();
        State::traceLevelIs(facility, static_cast<int>(level));
    }
    json levels = json::object();
    for (const State::TraceLevel& level : State::traceLevels())
        levels[level.facility] = level.level;
    return {{"levels", std::move(levels)}};
}

std::string ScenarioGrammar::text(const json& result) const {
    std::string out;
    if (result.contains("status")) {
        for (const auto& [name, value] : result["status"].items())
            out += name + ": " + (value.is_string() ? value.get<std::string>() : value.dump()) + "\n";
    } else if (result.contains("rows")) {
        out = showText(result);
    } else if (result.contains("answers")) {
        for (const json& answer : result["answers"])
            out += answerText(answer) + "\n";
    } else if (result.contains("records")) {
        for (const json& record : result["records"])
            out += record.get<std::string>();
    } else if (result.contains("levels")) {
        for (const auto& [facility, level] : result["levels"].items())
            out += facility + " " + level.dump() + "\n";
    } else if (result.contains("value")) {
        const json& value = result["value"];
        if (value.is_array()) {
            for (const json& member : value) {
                out += member.contains("key") ? member["key"].dump() + " = " + member["value"].dump() + "\n"
                                              : member.dump() + "\n";
            }
        } else {
            out = value.dump() + "\n";
        }
    }
    return out;
}

LineChanges ScenarioGrammar::changes(std::span<const std::string> lines, bool raw) {
    LineChanges made;
    StateCommands commands(operations_);
    for (std::size_t at = 0; at < lines.size(); ++at) {
        std::string wrong;
        try {
            const auto words = splitWords(lines[at]);
            if (words.empty())
                continue;
            if (!commands.compile(words, raw, made.changes))
                wrong = "'" + words.front() + "' describes no state";
        } catch (const std::exception& error) {
            wrong = error.what();
        }
        if (!wrong.empty())
            throw RpcError(RpcCode::invalidParams, wrong, {{"line", at + 1}, {"text", lines[at]}});
        made.lines.resize(made.changes.size(), at + 1);
    }
    return made;
}

void ScenarioGrammar::preload(const std::string& file) {
    const auto lines = linesOf(file);
    LineChanges made;
    try {
        made = changes(lines, false);
        operations_.apply(made.changes);
    } catch (const RpcError& error) {
        throw std::runtime_error(place(file, error.data()->at("line").get<std::size_t>()) + error.what());
    } catch (const OperationError& error) {
        throw std::runtime_error(place(file, made.lines.at(error.where().index.value_or(0))) + error.what());
    }
}

void ScenarioGrammar::check(const std::string& file) {
    const auto lines = linesOf(file);
    StateCommands commands(operations_);
    std::vector<Change> changes;
    for (std::size_t at = 0; at < lines.size(); ++at) {
        try {
            const auto given = splitWords(lines[at]);
            changes.clear();
            if (given.empty() || commands.compile(given, false, changes))
                continue;
            WordReader words(given);
            if (words.accept("expect"))
                continue; // names may be known only when the lines before it are carried out
            if (!words.accept("mark") && !words.accept("show") && !words.accept("get") &&
                !words.accept("trace"))
                words.refuse("a command");
        } catch (const std::exception& error) {
            throw std::runtime_error(place(file, at + 1) + error.what());
        }
    }
}

void ScenarioGrammar::play(const std::string& file, std::function<void(bool held)> done) {
    bool held = true;
    std::size_t number = 0;
    for (const std::string& line : linesOf(file))
        held = playLine(file, ++number, line) && held;
    hooks_.settle();
    out_.flush();
    done(held);
}

// Prints the line, what it shows, and the answers that changed with it.
bool ScenarioGrammar::playLine(const std::string& file, std::size_t number, const std::string& line) {
    out_ << line << '\n';
    if (splitWords(line).empty())
        return true;
    try {
        const std::string told = text(run(line, false));
        for (std::size_t begin = 0; begin < told.size();) {
            const std::size_t end = told.find('\n', begin);
            out_ << "    " << told.substr(begin, end - begin) << '\n';
            begin = end + 1;
        }
        return true;
    } catch (const std::exception& error) {
        out_.flush();
        std::cerr << place(file, number) << error.what() << '\n';
        return false;
    }
}

} // namespace Agent
