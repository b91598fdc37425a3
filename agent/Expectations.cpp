#include "agent/Expectations.h"

#include "agent/JsonDatum.h"
#include "agent/JsonRpc.h"
#include "state/Trace.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace Agent {

using nlohmann::json;

namespace {

// An answer as the grammar writes it: interfaces, "none", a group id, "absent".
std::string answerWords(const json& answer) {
    if (answer.is_null())
        return "absent";
    if (!answer.is_array())
        return answer.dump();
    std::string words;
    for (const json& intf : answer)
        words += (words.empty() ? "" : " ") + intf.get<std::string>();
    return words.empty() ? "none" : words;
}

[[noreturn]] void failed(const std::string& what, const std::string& expected, const std::string& actual) {
    throw RpcError(RpcCode::expectationFailed, what + ": expected " + expected + ", but it is " + actual,
                   {{"expected", expected}, {"actual", actual}});
}

} // namespace

void Expectations::mark() {
    mark_ = State::traceNext();
}

json Expectations::expect(WordReader& words) const {
    WordReader ahead = words;
    const bool isTrace = ahead.accept("trace") || (ahead.accept("no") && ahead.accept("trace"));
    isTrace ? expectTrace(words, false) : expectAnswer(words, false);
    return {{"held", true}};
}

void Expectations::check(WordReader& words) const {
    WordReader ahead = words;
    const bool isTrace = ahead.accept("trace") || (ahead.accept("no") && ahead.accept("trace"));
    isTrace ? expectTrace(words, true) : expectAnswer(words, true);
}

void Expectations::expectAnswer(WordReader& words, bool isDry) const {
    const NamedRequest named = StateCommands(operations_).request(words);
    words.expect("=");
    json expected;
    if (words.accept("absent")) {
        expected = nullptr;
    } else if (!named.isMroute) {
        expected = words.number("a group id, or absent", UINT32_MAX);
    } else {
        expected = json::array();
        if (!words.accept("none"))
            do {
                expected.push_back(words.word("interfaces, none or absent"));
            } while (!words.atEnd());
        std::sort(expected.begin(), expected.end());
    }
    words.expectEnd();
    if (isDry)
        return;
    const auto found = operations_.value(named.answerPath(), named.answerAttribute(), &named.key);
    json actual = found ? toJson(*found) : json();
    if (actual.is_array())
        std::sort(actual.begin(), actual.end());
    if (actual != expected) {
        failed(std::string(named.isMroute ? "mroute" : "mgroup") + " answer", answerWords(expected),
               answerWords(actual));
    }
}

void Expectations::expectTrace(WordReader& words, bool isDry) const {
    const bool isAbsent = words.accept("no");
    words.expect("trace");
    const std::string text = words.word("a text in quotes");
    words.expectEnd();
    if (isDry)
        return;
    if (State::traceOldest() > mark_)
        failed("trace", "all records since the mark", "a ring that wrapped since");
    const auto records = State::traceRecordsSince(mark_);
    const bool found = std::any_of(records.begin(), records.end(), [&](const State::TraceRecord& record) {
        return record.message.find(text) != std::string::npos;
    });
    if (found == isAbsent) {
        failed("trace", (isAbsent ? "no line with '" : "a line with '") + text + "'",
               isAbsent ? "there" : "not among " + std::to_string(records.size()) + " records");
    }
}

} // namespace Agent
