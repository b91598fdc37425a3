// What the control methods do. Their parameters have been checked for names and types (ControlService.cpp).
#include "agent/control/ControlService.h"
#include "agent/control/Schema.h"
#include "agent/host/Refusal.h"
#include "agent/json/Json.h"
#include "agent/language/AnswerText.h"
#include "agent/language/Queries.h"
#include "state/Trace.h"
#include "text/JsonWriter.h"
#include "text/TextWriter.h"

#include <optional>

namespace Agent {

namespace {

using State::Datum;
using Text::Reply;
using Text::Writer;

constexpr Parameter changeParameters[] = {
    {"op", ParameterType::text, true, "\"set\" or \"del\""},
    {"path", ParameterType::text, true, "as for set and del"},
    {"attribute", ParameterType::text, false, "as for set and del"},
    {"key", ParameterType::any, false, "as for set and del"},
    {"value", ParameterType::any, false, "as for set"},
    {"raw", ParameterType::boolean, false, "whether the guards let it through"},
};
constexpr Parameter sinceParameters[] = {
    {"instance", ParameterType::text, true, "of the agent"},
    {"seq", ParameterType::number, true, "of the last change heard"},
};

[[noreturn]] void refuse(std::string_view field, const std::string& message) {
    throw Refusal(message, {.field = std::string(field)});
}

std::string textOf(const Parameters& parameters, std::string_view name) {
    const std::string* text = parameters.text(name);
    return text == nullptr ? std::string() : *text;
}

std::optional<Datum> datumOf(const Parameters& parameters, std::string_view name) {
    const Datum* datum = parameters.find(name);
    return datum == nullptr ? std::nullopt : std::optional(*datum);
}

std::optional<std::uint64_t> numberOf(const Parameters& parameters, std::string_view name) {
    const std::uint64_t* number = parameters.number(name);
    return number == nullptr ? std::nullopt : std::optional(*number);
}

Change changeOf(const Parameters& parameters, Change::Op op) {
    return {.op = op,
            .path = textOf(parameters, "path"),
            .attribute = textOf(parameters, "attribute"),
            .key = datumOf(parameters, "key"),
            .value = datumOf(parameters, "value"),
            .raw = parameters.isTrue("raw")};
}

Change listedChange(const Datum& item, const std::string& owner) {
    if (item.record() == nullptr)
        refuse("changes", owner + " is no object");
    const Parameters parameters(*item.record(), changeParameters, owner);
    const std::string& op = *parameters.text("op");
    if (op != "set" && op != "del")
        refuse("op", owner + ": op is \"set\" or \"del\"");
    return changeOf(parameters, op == "set" ? Change::Op::set : Change::Op::del);
}

std::vector<Change> listedChanges(const Datum::List& list) {
    std::vector<Change> changes;
    changes.reserve(list.size());
    for (const Datum& item : list) {
        try {
            changes.push_back(listedChange(item, "change " + std::to_string(changes.size())));
        } catch (Refusal& refusal) {
            refusal.where().index = changes.size();
            throw;
        }
    }
    return changes;
}

std::vector<std::string> linesOf(const Datum::List& list) {
    std::vector<std::string> lines;
    for (const Datum& line : list) {
        if (line.text() == nullptr)
            refuse("lines", "lines are strings");
        lines.push_back(*line.text());
    }
    return lines;
}

// Says in a refusal which line is meant.
[[noreturn]] void rethrowAtLine(const Refusal& refusal) {
    throw Refusal(refusal.kind(), "line " + std::to_string(*refusal.where().line) + ": " + refusal.what(),
                  refusal.where());
}

} // namespace

void ControlService::get(const Parameters& parameters, const Reply& reply) {
    const GetQuery query{.path = textOf(parameters, "path"),
                         .attribute = textOf(parameters, "attribute"),
                         .key = datumOf(parameters, "key"),
                         .limit = numberOf(parameters, "limit"),
                         .after = datumOf(parameters, "after")};
    reply([&](Writer& writer) { Agent::get(operations_, query, writer); });
}

void ControlService::change(const Parameters& parameters, Change::Op op, const Reply& reply) {
    const bool isChanged = operations_.change(changeOf(parameters, op));
    reply([&](Writer& writer) {
        writer.beginRecord();
        writer.member("changed", isChanged);
        writer.end();
    });
}

void ControlService::apply(const Parameters& parameters, const Reply& reply) {
    const Datum* listed = parameters.find("changes");
    const Datum* lines = parameters.find("lines");
    if ((listed != nullptr) == (lines != nullptr))
        refuse("changes", "apply takes either changes or lines");
    if (listed != nullptr && parameters.find("raw") != nullptr)
        refuse("raw", "each change says itself whether it is raw");
    const bool withText = parameters.isTrue("text");
    try {
        const std::vector<Change> changes =
            listed != nullptr ? listedChanges(*listed->list())
                              : language_.changes(linesOf(*lines->list()), parameters.isTrue("raw"));
        if (parameters.isTrue("dryRun")) {
            dryRun(changes, withText, reply);
            return;
        }
        const ApplyResult result = operations_.apply(changes);
        reply([&](Writer& writer) { writeApplied(writer, operations_, result, withText); });
    } catch (const Refusal& refusal) {
        if (!refusal.where().line)
            throw;
        rethrowAtLine(refusal);
    }
}

// The child writes the result as it would be, and this process passes it on.
void ControlService::dryRun(std::span<const Change> changes, bool withText, const Reply& reply) {
    const DryRunResult result = operations_.dryRun(changes, [&](const ApplyResult& applied) {
        std::string json;
        Text::JsonWriter writer(json);
        writeApplied(writer, operations_, applied, withText);
        return json;
    });
    reply([&](Writer& writer) {
        if (result.told) {
            Json::write(writer, Json::parse(*result.told));
            return;
        }
        writer.beginRecord();
        writer.member("assertion", result.fatal);
        writer.end();
    });
}

void ControlService::watch(ClientId client, const Parameters& parameters, const Reply& reply) {
    const Datum* since = parameters.find("since");
    const bool withText = parameters.isTrue("text");
    std::optional<std::uint64_t> heard;
    if (since != nullptr) {
        const Parameters parts(*since->record(), sinceParameters, "\"since\"");
        if (stillHolds(parts))
            heard = *parts.number("seq");
    }
    watchers_.watch(client, log_.last(), withText);
    reply([&](Writer& writer) {
        writer.beginRecord();
        writer.member("instance", log_.instance());
        writer.member("seq", log_.last());
        if (since != nullptr && !heard)
            writer.member("lost", true);
        if (heard) {
            writer.field("changes");
            writer.beginList();
            for (std::uint64_t seq = *heard + 1; seq <= log_.last(); ++seq)
                writeChange(writer, operations_, seq, log_.change(seq), withText);
            writer.end();
        } else {
            writer.field("snapshot");
            writeSnapshot(writer, withText);
        }
        writer.end();
    });
}

void ControlService::writeSnapshot(Writer& writer, bool withText) const {
    writer.beginList();
    for (const AnswerChange& answer : log_.snapshot()) {
        writer.beginRecord();
        writeAnswerMembers(writer, operations_, answer, withText);
        writer.end();
    }
    writer.end();
}

// Whether the changes after the one that `since` names are all held, and it names this run of the agent.
bool ControlService::stillHolds(const Parameters& since) const {
    const std::uint64_t heard = *since.number("seq");
    return *since.text("instance") == log_.instance() && heard <= log_.last() && heard + 1 >= log_.oldest();
}

void ControlService::command(const Parameters& parameters, const Reply& reply) {
    const bool withText = parameters.isTrue("text");
    // The line's reply may come later: it holds what it needs.
    language_.run(*parameters.text("line"), parameters.isTrue("raw"),
                  [reply, withText](const Text::Tell& tell) {
                      reply([&](Writer& writer) {
                          writer.beginRecord();
                          writer.field("result");
                          tell(writer);
                          if (withText) {
                              std::string text;
                              Text::TextWriter people(text);
                              tell(people);
                              writer.member("text", text);
                          }
                          writer.end();
                      });
                  });
}

void ControlService::schema(const Parameters& parameters, const Reply& reply) {
    const std::string* type = parameters.text("type");
    reply([&](Writer& writer) {
        type == nullptr ? writeSchema(writer, methods_) : writeSchemaOf(writer, *type);
    });
}

void ControlService::trace(const Parameters& parameters, const Reply& reply) {
    TraceQuery query{.level = numberOf(parameters, "level"), .last = numberOf(parameters, "last")};
    if (const std::string* facility = parameters.text("facility"))
        query.facility = *facility;
    Agent::trace(query, reply);
}

} // namespace Agent
