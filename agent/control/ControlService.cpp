// The dispatch of the control methods: parameters checked, watchers told. What there is and what it does is in
// ControlMethods.cpp.
#include "agent/control/ControlService.h"

#include "agent/control/Sessions.h"
#include "state/Trace.h"

#include <algorithm>

TRACE_FACILITY("Agent");

namespace Agent {

ControlService::ControlService(asio::io_context& context, Operations& operations, Language& language,
                               AnswerLog& log)
    : operations_(operations)
    , language_(language)
    , log_(log)
    , watchers_(operations, log)
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
                           return [this](const Text::Reply& reply) { reply(language_.shown("status")); };
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
    if (method == methods_.end()) {
        std::string names;
        for (const Method& known : methods_)
            names += (names.empty() ? "" : ", ") + std::string(known.name);
        throw UnknownMethod("there is no method \"" + std::string(name) + "\"; there are " + names);
    }
    TRACE(8, "ControlService::", "call", " method=", name);
    const Parameters parameters(params, method->parameters, "method \"" + std::string(name) + "\"");
    method->carryOut({client, parameters, reply});
    tellWatchers(); // before the answer leaves, so that who waits for the answer has heard what it caused
    onServed_();
}

void ControlService::tellWatchers() {
    if (sessions_ != nullptr && watchers_.tell(*sessions_))
        tellTask_.request();
}

void ControlService::clientGone(ClientId client) {
    watchers_.unwatch(client);
    onClientGone_(client);
}

} // namespace Agent
