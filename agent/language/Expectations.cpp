#include "agent/language/Expectations.h"

#include "agent/language/AnswerText.h"
#include "state/Trace.h"
#include "state/Value.h"
#include "text/Words.h"

#include <algorithm>
#include <set>

namespace Agent {

namespace {

[[noreturn]] void failed(const std::string& what, const std::string& expected, const std::string& actual) {
    throw Refusal(RefusalKind::expectation, what + ": expected " + expected + ", but it is " + actual,
                  {.expected = expected, .actual = actual});
}

// Does the work and replies with what it returns as a member, which people need not be told.
template <class Work>
Action toldAs(std::string_view member, Work work) {
    return [member, work = std::move(work)](const Text::Reply& reply) {
        const auto result = work();
        reply([&](Text::Writer& writer) {
            if (!writer.isForPeople())
                writer.record(member, result);
        });
    };
}

Action held(std::function<void()> hold) {
    return toldAs("held", [hold = std::move(hold)] {
        hold();
        return true;
    });
}

// The expected answer, in the words of answerWords(); interfaces in order, as they are compared as sets.
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
    return Text::joined(interfaces, " ");
}

std::string actualAnswer(const Answer& answer) {
    const auto* oifs = std::get_if<KestrelNat::NatMrouteOifSet>(&answer);
    if (oifs == nullptr || oifs->oif().empty())
        return answerWords(answer, "absent");
    std::set<std::string_view> interfaces;
    for (const L3::IntfId intf : oifs->oif())
        interfaces.emplace(intf.stringValue());
    return Text::joined(interfaces, " ");
}

} // namespace

Action Expectations::read(WordReader& words, const StateCommands& names) {
    const bool isAbsent = words.accept("no");
    if (isAbsent)
        words.expect("trace");
    if (isAbsent || words.accept("trace")) {
        const std::string text = words.word("a text in quotes");
        return held([this, text, isAbsent] { holdTrace(text, isAbsent); });
    }
    const NamedRequest named = names.request(words);
    const Service& service = *named.service;
    // Refuses a key that is none.
    static_cast<void>(operations_.value(service.answerPath, service.answerAttribute, &named.key));
    const std::string expected = readAnswer(words.expect("="), service);
    return held([this, named, expected] { holdAnswer(named, expected); });
}

Action Expectations::mark() {
    return toldAs("marked", [this] { return mark_ = State::traceNext(); });
}

void Expectations::holdAnswer(const NamedRequest& named, const std::string& expected) const {
    settle_();
    const L3::IntfId::Provisional asking;
    const auto key = State::fromDatum<RequestKey>(named.key);
    const std::string actual =
        actualAnswer(named.service->answer(*operations_.host().stores().database, key));
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
