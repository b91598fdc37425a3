#include "agent/control/ControlService.h"

#include "agent/host/Refusal.h"
#include "state/Trace.h"

#include <algorithm>
#include <new>

TRACE_FACILITY("Agent");

namespace Agent {

namespace {

using State::Datum;

struct TypeForm {
    std::string_view text;
    bool (*has)(const Datum& value);
};

// By ParameterType.
constexpr TypeForm typeForms[] = {
    {"string", [](const Datum& value) { return value.text() != nullptr; }},
    {"boolean", [](const Datum& value) { return value.boolean() != nullptr; }},
    {"number", [](const Datum& value) { return value.number() != nullptr; }},
    {"object", [](const Datum& value) { return value.record() != nullptr; }},
    {"array", [](const Datum& value) { return value.list() != nullptr; }},
    {"any", [](const Datum& /*value*/) { return true; }},
};

const TypeForm& formOf(ParameterType type) {
    return typeForms[static_cast<std::size_t>(type)];
}

std::string wanted(ParameterType type) {
    return type == ParameterType::number ? "a number of at least 0, without a fraction"
                                         : "of type " + std::string(typeText(type));
}

// Of methods or parameters.
template <class All>
std::string namesOf(const All& all) {
    std::string names = all.empty() ? "none" : "";
    for (const auto& each : all)
        names += (names.empty() ? "" : ", ") + std::string(each.name);
    return names;
}

} // namespace

std::string_view typeText(ParameterType type) {
    return formOf(type).text;
}

Parameters::Parameters(const Datum::Record& given, std::span<const Parameter> known, const std::string& owner)
    : given_(given) {
    const auto check = [&](const std::string& name, const Datum& value) {
        const auto parameter = std::ranges::find(known, std::string_view(name), &Parameter::name);
        if (parameter == known.end())
            throw Refusal(owner + " has no parameter \"" + name + "\"; there are " + namesOf(known),
                          {.field = name});
        const auto refuse = [&](const std::string& fault) {
            throw Refusal("parameter \"" + name + "\" of " + owner + fault, {.field = name});
        };
        if (find(name) != &value)
            refuse(" is given twice");
        if (!formOf(parameter->type).has(value))
            refuse(" must be " + wanted(parameter->type));
    };
    for (const auto& [name, value] : given)
        check(name, value);
    for (const auto& [name, type, isRequired, about] : known)
        if (isRequired && find(name) == nullptr)
            throw Refusal(owner + " needs the parameter \"" + std::string(name) + "\"",
                          {.field = std::string(name)});
}

const Datum* Parameters::find(std::string_view name) const {
    const auto found = std::ranges::find(given_, name, &Datum::Record::value_type::first);
    return found == given_.end() ? nullptr : &found->second;
}

std::optional<Datum> Parameters::any(std::string_view name) const {
    const Datum* value = find(name);
    return value == nullptr ? std::nullopt : std::optional(*value);
}

ControlService::ControlService(asio::io_context& context, Operations& operations, Language& language,
                               AnswerLog& log)
    : operations_(operations)
    , language_(language)
    , log_(log)
    , watchers_(operations, log)
    , dryRuns_(context)
    , tellTask_(context, [this] { tellWatchers(); })
    , methods_(ownMethods()) {
    log_.onGrown([this] {
        if (watchers_.size() > 0)
            tellTask_.request();
    });
    addOwnVerbs();
}

void ControlService::addOwnVerbs() {
    language_.addShown("status", [this](Text::Writer& writer) { writeStatus(writer); });
    language_.addVerb({"status", [this](WordReader&, const StateCommands&) -> Action {
                           return [this](const Text::Reply& reply) {
                               reply(language_.shown({.what = "status"}));
                           };
                       }});
    language_.addVerb({"schema", [this](WordReader& words, const StateCommands&) -> Action {
                           const std::string type = words.atEnd() ? "" : words.word("a type");
                           const auto tell = schemaOf(type.empty() ? std::nullopt : std::optional(type));
                           return [tell](const Text::Reply& reply) { reply(tell); };
                       }});
}

void ControlService::attach(Sessions* sessions) {
    sessions_ = sessions;
    if (sessions != nullptr)
        sessions->onRoom([this] { tellTask_.request(); });
}

void ControlService::call(ClientId client, std::string_view name, const State::Datum::Record& params,
                          const Text::Reply& reply) {
    State::traceEventBegin();
    ++requests_;
    const auto method = std::ranges::find(methods_, name, &Method::name);
    const std::string owner = "method \"" + std::string(name) + "\"";
    if (method == methods_.end())
        throw UnknownMethod("there is no " + owner + "; there are " + namesOf(methods_));
    TRACE(8, "ControlService::", "call", " method=", name);
    const Parameters parameters(params, method->parameters, owner);
    const std::uint64_t before = log_.last();
    carryOut(*method, {client, parameters, reply});
    // Before the answer leaves, so that who waits for the answer has heard what it caused, unless it is behind anyway.
    if (log_.last() != before && !isTelling_)
        tellWatchers();
    onServed_();
}

bool ControlService::takesMuch(std::string_view name) const {
    const auto method = std::ranges::find(methods_, name, &Method::name);
    return method != methods_.end() && method->takesMuch;
}

// What needs memory while changes are carried out ends the process (Operations), so they are now done or not begun.
void ControlService::carryOut(const Method& method, const Call& call) {
    const std::uint64_t before = operations_.counters().changes;
    try {
        method.carryOut(call);
    } catch (const std::bad_alloc&) {
        throw Refusal(RefusalKind::limit,
                      operations_.counters().changes == before
                          ? "out of memory: nothing was changed"
                          : "out of memory: it was carried out, but what came of it can't be told");
    }
}

void ControlService::tellWatchers() {
    isTelling_ = sessions_ != nullptr && watchers_.tell(*sessions_);
    if (isTelling_)
        tellTask_.request();
}

// A watcher waits to be told something, however long that takes.
void ControlService::keep(ClientId client, bool isKept) {
    if (sessions_ != nullptr)
        sessions_->keep(client, isKept);
}

void ControlService::clientGone(ClientId client) {
    watchers_.unwatch(client);
    dryRuns_.forget(client);
    onClientGone_(client);
}

} // namespace Agent
