// The dispatch of the control methods: the table of what there is, parameters checked, watchers told. What the
// methods do is in ControlMethods.cpp.
#include "agent/control/ControlService.h"

#include "agent/control/Schema.h"
#include "agent/control/Sessions.h"
#include "agent/control/Status.h"
#include "state/Trace.h"

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
    {"lines", Type::array, false, "in their place: state commands of the grammar, a line each"},
    {"raw", Type::boolean, false, "whether the guards let the lines through"},
    {"dryRun", Type::boolean, false, "foretell what would happen and change nothing"},
    {"text", Type::boolean, false, "tell each answer also as people read it"},
};
constexpr Parameter watchParameters[] = {
    {"since", Type::object, false, "{instance, seq} of the last change heard"},
    {"text", Type::boolean, false, "tell each answer also as people read it"},
};
constexpr Parameter commandParameters[] = {
    {"line", Type::text, true, "one line of the grammar"},
    {"raw", Type::boolean, false, "whether the guards let it through"},
    {"text", Type::boolean, false, "send the result also as people read it"},
};
constexpr Parameter showParameters[] = {
    {"what", Type::text, true, "mroute, mgroup, vrfs, routes, requests, groups or status"},
};
constexpr Parameter schemaParameters[] = {
    {"type", Type::text, false, "one entity type or value type only"},
};
constexpr Parameter traceParameters[] = {
    {"facility", Type::text, false, "whose level is meant"},
    {"level", Type::number, false, "up to which its lines are printed, 0 to 9"},
    {"last", Type::number, false, "so many of the latest trace records instead"},
};

} // namespace

ControlService::ControlService(asio::io_context& context, Operations& operations, Language& language,
                               AnswerLog& log)
    : operations_(operations)
    , language_(language)
    , log_(log)
    , watchers_(operations, log)
    , tellTask_(context, [this] { tellWatchers(); }) {
    log_.onGrown([this] {
        if (watchers_.size() > 0)
            tellTask_.request();
    });
    addOwnMethods();
    addOwnVerbs();
}

void ControlService::addMethod(Method method) {
    methods_.push_back(std::move(method));
}

void ControlService::addOwnMethods() {
    const auto add = [this](std::string_view name, std::string_view about,
                            std::span<const Parameter> parameters, auto carryOut) {
        addMethod({name, about, parameters, carryOut});
    };
    using P = const Parameters&;
    using R = const Text::Reply&;
    add("get", "reads an attribute, a member or everything at a path", getParameters,
        [this](ClientId, P parameters, R reply) { get(parameters, reply); });
    add("set", "writes an attribute or a member", setParameters,
        [this](ClientId, P parameters, R reply) { change(parameters, Change::Op::set, reply); });
    add("del", "removes a member", delParameters,
        [this](ClientId, P parameters, R reply) { change(parameters, Change::Op::del, reply); });
    add("apply", "checks all changes, then carries all out", applyParameters,
        [this](ClientId, P parameters, R reply) { apply(parameters, reply); });
    add("watch", "tells answers as they change", watchParameters,
        [this](ClientId client, P parameters, R reply) { watch(client, parameters, reply); });
    add("unwatch", "ends watch", {}, [this](ClientId client, P, R reply) {
        watchers_.unwatch(client);
        reply([](Text::Writer& writer) {
            writer.beginRecord();
            writer.end();
        });
    });
    add("command", "runs a line of the grammar", commandParameters,
        [this](ClientId, P parameters, R reply) { command(parameters, reply); });
    add("show", "rows of what the stores hold", showParameters,
        [this](ClientId, P parameters, R reply) { reply(language_.shown(*parameters.text("what"))); });
    add("schema", "describes types, paths and methods", schemaParameters,
        [this](ClientId, P parameters, R reply) { schema(parameters, reply); });
    add("status", "how the agent fares", {},
        [this](ClientId, P, R reply) { reply([this](Text::Writer& writer) { writeStatus(writer); }); });
    add("trace", "trace levels, or the latest trace records", traceParameters,
        [this](ClientId, P parameters, R reply) { trace(parameters, reply); });
}

void ControlService::addOwnVerbs() {
    language_.addVerb({"schema", [this](WordReader& words, const StateCommands&) -> Action {
                           const std::string type = words.atEnd() ? "" : words.word("a type");
                           return [this, type](const Text::Reply& reply) {
                               reply([&](Text::Writer& writer) {
                                   type.empty() ? writeSchema(writer, methods_) : writeSchemaOf(writer, type);
                               });
                           };
                       }});
    language_.addVerb({"status", [this](WordReader&, const StateCommands&) -> Action {
                           return [this](const Text::Reply& reply) {
                               reply([this](Text::Writer& writer) { writeStatus(writer); });
                           };
                       }});
    language_.addShown("status", [this](Text::Writer& writer) { writeStatus(writer); });
}

void ControlService::attach(Sessions* sessions) {
    sessions_ = sessions;
    watchers_.attach(sessions);
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
    method->carryOut(client, Parameters(params, method->parameters, "method \"" + std::string(name) + "\""),
                     reply);
    tellWatchers(); // before the answer leaves, so that who waits for the answer has heard what it caused
    onServed_();
}

void ControlService::tellWatchers() {
    if (watchers_.tell())
        tellTask_.request();
}

void ControlService::clientGone(ClientId client) {
    watchers_.unwatch(client);
    if (onClientGone_)
        onClientGone_(client);
}

void ControlService::writeStatus(Text::Writer& writer) const {
    const std::chrono::duration<double> uptime = std::chrono::steady_clock::now() - started_;
    const Stores& stores = operations_.host().stores();
    writer.beginRecord();
    writer.member("version", KESTREL_VERSION);
    writer.member("instance", log_.instance());
    writer.member("uptimeSeconds", static_cast<std::uint64_t>(uptime.count()));
    writer.field("toggles");
    writeToggles(writer);
    writer.member("fibSource", operations_.host().routes().name());
    writer.field("sources");
    writer.beginList();
    for (const std::string& source : sources_)
        writer.value(source);
    writer.end();
    writer.field("ready");
    writeReady(writer, stores);
    writer.field("sizes");
    writeSizes(writer, stores);
    writer.field("tables");
    writeTables(writer, stores);
    writer.field("counters");
    writeCounters(writer);
    writer.end();
}

void ControlService::writeCounters(Text::Writer& writer) const {
    writer.beginRecord();
    writer.member("requests", requests_);
    writer.member("changes", operations_.counters().changes);
    writer.member("refused", operations_.counters().refused);
    writer.member("clients", sessions_ == nullptr ? 0 : sessions_->clients());
    writer.member("cutOff", sessions_ == nullptr ? 0 : sessions_->cutOffCount());
    writer.member("watchers", watchers_.size());
    writer.member("answerSeq", log_.last());
    writer.member("answersOldest", log_.oldest());
    writer.member("traceNext", State::traceNext());
    writer.member("traceOldest", State::traceOldest());
    writer.end();
}

} // namespace Agent
