#include "agent/language/Expectations.h"

#include "agent/changes/Answers.h"
#include "agent/host/Refusal.h"
#include "agent/language/AnswerText.h"
#include "agent/language/StateCommands.h"
#include "state/Trace.h"
#include "state/Value.h"

#include <algorithm>
#include <set>

namespace Agent {

namespace {

[[noreturn]] void failed(const std::string& what, const std::string& expected, const std::string& actual) {
    throw Refusal(RefusalKind::expectation, what + ": expected " + expected + ", but it is " + actual,
                  {.expected = expected, .actual = actual});
}

Action held(std::function<void()> hold) {
    return [hold = std::move(hold)](const Text::Reply& reply) {
        hold();
        reply([](Text::Writer& writer) {
            if (writer.isForPeople())
                return;
            writer.beginRecord();
            writer.member("held", true);
            writer.end();
        });
    };
}

// Words in order, each once: interfaces are compared as sets.
std::string sorted(const std::set<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

// The expected answer, in the words of answerWords().
std::string readAnswer(WordReader& words, const Service& service) {
    if (words.accept("absent"))
        return "absent";
    if (!service.answersInterfaces)
        return std::to_string(words.number("a group id, or absent", UINT32_MAX));
    if (words.accept("none"))
        return "none";
    std::set<std::string> interfaces;
    do
        interfaces.insert(words.word("interfaces, none or absent"));
    while (!words.atEnd());
    return sorted(interfaces);
}

std::string actualAnswer(const Answer& answer) {
    const auto* oifs = std::get_if<KestrelNat::NatMrouteOifSet>(&answer);
    if (oifs == nullptr || oifs->oif().empty())
        return answerWords(answer, "absent");
    std::set<std::string> interfaces;
    for (const L3::IntfId intf : oifs->oif())
        interfaces.insert(intf.stringValue());
    return sorted(interfaces);
}

} // namespace

Action Expectations::read(WordReader& words, const StateCommands& names) {
    const bool isAbsent = words.accept("no");
    if (isAbsent)
        words.expect("trace");
    if (isAbsent || words.accept("trace"))
        return readTrace(words, isAbsent);
    const NamedRequest named = names.request(words);
    const Service& service = *named.service;
    // Refuses a key that is none.
    static_cast<void>(operations_.value(service.answerPath, service.answerAttribute, &named.key));
    words.expect("=");
    const std::string expected = readAnswer(words, service);
    words.expectEnd();
    return held([this, named, expected] { holdAnswer(named, expected); });
}

Action Expectations::readTrace(WordReader& words, bool isAbsent) {
    const std::string text = words.word("a text in quotes");
    words.expectEnd();
    return held([this, text, isAbsent] { holdTrace(text, isAbsent); });
}

std::uint64_t Expectations::mark() {
    mark_ = State::traceNext();
    return mark_;
}

void Expectations::holdAnswer(const NamedRequest& named, const std::string& expected) const {
    settle_();
    const AnswerMaps maps(operations_.host().stores());
    const auto key = State::fromDatum<RequestKey>(named.key);
    const std::string actual = actualAnswer(maps.answer(*named.service, key).answer);
    if (actual != expected)
        failed(std::string(named.service->name) + " answer", expected, actual);
}

void Expectations::holdTrace(const std::string& text, bool isAbsent) const {
    settle_();
    if (State::traceOldest() > mark_)
        failed("trace", "all records since the mark", "a ring that wrapped since");
    const auto records = State::traceRecordsSince(mark_);
    const bool isFound = std::ranges::any_of(records, [&](const State::TraceRecord& record) {
        return record.message.find(text) != std::string::npos;
    });
    if (isFound == isAbsent)
        failed("trace", (isAbsent ? "no line with '" : "a line with '") + text + "'",
               isAbsent ? "there" : "not among " + std::to_string(records.size()) + " records");
}

} // namespace Agent
