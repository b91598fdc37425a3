// The methods of the control protocol: the table of what there is with what each takes, and what each does.
#include "agent/control/ControlService.h"

#include "agent/host/Refusal.h"
#include "agent/json/Json.h"
#include "agent/language/AnswerText.h"
#include "agent/language/Queries.h"
#include "text/JsonWriter.h"
#include "text/TextWriter.h"

namespace Agent {

namespace {

using State::Datum;
using Text::Writer;
using Type = ParameterType;

constexpr Parameter changeParameters[] = {
    {"op", Type::text, true, "\"set\" or \"del\""},
    {"path", Type::text, true, "as for set and del"},
    {"attribute", Type::text, false, "as for set and del"},
    {"key", Type::any, false, "as for set and del"},
    {"value", Type::any, false, "as for set"},
    {"raw", Type::boolean, false, "whether the guards let it through"},
};
constexpr Parameter sinceParameters[] = {
    {"instance", Type::text, true, "of the agent"},
    {"seq", Type::number, true, "of the last change heard"},
};

[[noreturn]] void refuse(std::string_view field, const std::string& message) {
    throw Refusal(message, {.field = std::string(field)});
}

void get(const Operations& operations, const Call& call) {
    const Parameters& given = call.parameters;
    const GetQuery query{.path = *given.text("path"),
                         .attribute = given.text("attribute").value_or(""),
                         .key = given.any("key"),
                         .limit = given.number("limit"),
                         .after = given.any("after")};
    call.reply([&](Writer& writer) { Agent::get(operations, query, writer); });
}

Change changeOf(const Parameters& given, Change::Op op) {
    return {.op = op,
            .path = *given.text("path"),
            .attribute = given.text("attribute").value_or(""),
            .key = given.any("key"),
            .value = given.any("value"),
            .raw = given.isTrue("raw")};
}

void change(Operations& operations, const Call& call, Change::Op op) {
    const bool isChanged = operations.change(changeOf(call.parameters, op));
    call.reply([&](Writer& writer) { writer.record("changed", isChanged); });
}

Change listedChange(const Datum& item, const std::string& owner) {
    if (item.record() == nullptr)
        refuse("changes", owner + " is no object");
    const Parameters given(*item.record(), changeParameters, owner);
    const std::string op = *given.text("op");
    if (op != "set" && op != "del")
        refuse("op", owner + ": op is \"set\" or \"del\"");
    return changeOf(given, op == "set" ? Change::Op::set : Change::Op::del);
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

// Carries out an apply. @return what tells the result
Text::Tell applied(Operations& operations, Language& language, const Parameters& given) {
    const Datum* listed = given.find("changes");
    try {
        const std::vector<Change> changes =
            listed != nullptr ? listedChanges(*listed->list())
                              : language.changes(linesOf(*given.find("lines")->list()), given.isTrue("raw"));
        return [&operations, withText = given.isTrue("text"), result = operations.apply(changes)](
                   Writer& writer) { writeApplied(writer, operations, result, withText); };
    } catch (const Refusal& refusal) {
        if (!refusal.where().line)
            throw;
        throw Refusal(refusal.kind(), "line " + std::to_string(*refusal.where().line) + ": " + refusal.what(),
                      refusal.where());
    }
}

void apply(Operations& operations, Language& language, DryRuns& dryRuns, const Call& call) {
    const Parameters& given = call.parameters;
    if ((given.find("changes") != nullptr) == (given.find("lines") != nullptr))
        refuse("changes", "apply takes either changes or lines");
    if (given.find("changes") != nullptr && given.find("raw") != nullptr)
        refuse("raw", "each change says itself whether it is raw");
    if (!given.isTrue("dryRun")) {
        call.reply(applied(operations, language, given));
        return;
    }
    const auto work = [&operations, &language, given, whileThere = call.reply] {
        std::string json;
        Text::JsonWriter writer(json);
        applied(operations, language, given)(writer);
        return json;
    };
    dryRuns.run(call.client, work, [reply = call.reply](const DryRunResult& foretold) {
        reply([&](Writer& writer) {
            if (foretold.refused)
                throw Refusal(*foretold.refused);
            if (foretold.told)
                writer.json(*foretold.told);
            else
                writer.record("assertion", foretold.fatal);
        });
    });
}

// What a client that comes back heard last, if what came after it is still held, and it names this run of the agent.
std::optional<std::uint64_t> heldSince(const AnswerLog& log, const Datum& since) {
    const Parameters parts(*since.record(), sinceParameters, "\"since\"");
    const std::uint64_t seq = *parts.number("seq");
    const bool isHeld =
        *parts.text("instance") == log.instance() && seq <= log.last() && seq + 1 >= log.oldest();
    return isHeld ? std::optional(seq) : std::nullopt;
}

void watch(const Operations& operations, const AnswerLog& log, Watchers& watchers, const Call& call) {
    const Datum* since = call.parameters.find("since");
    const bool withText = call.parameters.isTrue("text");
    const auto heard = since == nullptr ? std::nullopt : heldSince(log, *since);
    std::optional<SnapshotPage> page;
    if (heard)
        watchers.watchSince(call.client, *heard, withText);
    else
        page = watchers.watch(call.client, withText);
    call.reply([&](Writer& writer) {
        writer.beginRecord();
        writer.member("instance", log.instance());
        writer.member("seq", heard.value_or(log.last()));
        if (page && since != nullptr)
            writer.member("lost", true);
        if (page) {
            writer.field("snapshot");
            writeAnswers(writer, VrfNames(operations), page->answers, withText);
        }
        if (page && page->last)
            writer.member("more", true);
        writer.end();
    });
}

void command(Language& language, const Call& call) {
    // The line's reply may come later: it holds what it needs.
    const auto reply = [reply = call.reply,
                        withText = call.parameters.isTrue("text")](const Text::Tell& tell) {
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
    };
    language.run(*call.parameters.text("line"), call.parameters.isTrue("raw"), reply);
}

} // namespace

std::vector<Method> ControlService::ownMethods() {
    return {
        {"get",
         "reads an attribute, a member or everything at a path",
         {{"path", Type::text, true, "what stands in the agent's stores"},
          {"attribute", Type::text, false, "of what stands there; without it all of them"},
          {"key", Type::any, false, "a member of the attribute's collection"},
          {"limit", Type::number, false, "most members to return, of the 1000 that a page has"},
          {"after", Type::any, false, "the member behind which to begin"}},
         [this](const Call& call) { get(operations_, call); }},
        {"set",
         "writes an attribute or a member",
         {{"path", Type::text, true, "as for get; a table or FIB is made by the first write below its path"},
          {"attribute", Type::text, false, "without it the table or FIB is made, and nothing else"},
          {"key", Type::any, false, "the member, if the attribute is a collection"},
          {"value", Type::any, false, "the value; fields left out keep what they have"},
          {"raw", Type::boolean, false, "whether the guards let it through"}},
         [this](const Call& call) { change(operations_, call, Change::Op::set); }},
        {"del",
         "removes a member, or a table or FIB",
         {{"path", Type::text, true, "as for get"},
          {"attribute", Type::text, false,
           "a collection; without it the table or FIB goes, with all its routes"},
          {"key", Type::any, false, "the member to remove"},
          {"raw", Type::boolean, false, "whether the guards let it through"}},
         [this](const Call& call) { change(operations_, call, Change::Op::del); }},
        {"apply",
         "checks all changes, then carries all out",
         {{"changes", Type::array, false,
           "changes: the parameters of set or del, with op \"set\" or \"del\""},
          {"lines", Type::array, false, "in their place: state commands of the grammar, a line each"},
          {"raw", Type::boolean, false, "whether the guards let the lines through"},
          {"dryRun", Type::boolean, false, "foretell what would happen and change nothing"},
          {"text", Type::boolean, false, "tell each answer also as people read it"}},
         [this](const Call& call) { apply(operations_, language_, dryRuns_, call); },
         true},
        {"watch",
         "tells answers as they change",
         {{"since", Type::object, false, "{instance, seq} of the last change heard"},
          {"text", Type::boolean, false, "tell each answer also as people read it"}},
         [this](const Call& call) {
             watch(operations_, log_, watchers_, call);
             keep(call.client, true);
             tellTask_.request(); // behind the answer
         }},
        {"unwatch",
         "ends watch",
         {},
         [this](const Call& call) {
             watchers_.unwatch(call.client);
             keep(call.client, false);
             call.reply([](Writer& writer) { writer.record(); });
         }},
        {"command",
         "runs a line of the grammar",
         {{"line", Type::text, true, "one line of the grammar"},
          {"raw", Type::boolean, false, "whether the guards let it through"},
          {"text", Type::boolean, false, "send the result also as people read it"}},
         [this](const Call& call) { command(language_, call); }},
        {"show",
         "rows of what the stores hold",
         {{"what", Type::text, true, "mroute, mgroup, vrfs, routes, requests, groups or status"},
          {"limit", Type::number, false, "most rows to return, of the 512 that a page has"},
          {"after", Type::text, false, "\"more\" of the page before"}},
         [this](const Call& call) {
             const Parameters& given = call.parameters;
             call.reply(language_.shown({.what = *given.text("what"),
                                         .limit = given.number("limit"),
                                         .after = given.text("after")}));
         }},
        {"schema",
         "describes types, paths and methods",
         {{"type", Type::text, false, "one entity type or value type only"}},
         [this](const Call& call) { call.reply(schemaOf(call.parameters.text("type"))); }},
        {"status",
         "how the agent fares",
         {},
         [this](const Call& call) { call.reply(language_.shown({.what = "status"})); }},
        {"trace",
         "trace levels, or the latest trace records",
         {{"facility", Type::text, false, "whose level is meant"},
          {"level", Type::number, false, "up to which its lines are printed, 0 to 9"},
          {"last", Type::number, false, "so many of the latest trace records instead"},
          {"after", Type::number, false, "so many behind this one: \"more\" of the page before"}},
         [](const Call& call) {
             const Parameters& given = call.parameters;
             trace({.facility = given.text("facility"),
                    .level = given.number("level"),
                    .last = given.number("last"),
                    .after = given.number("after")},
                   call.reply);
         }},
    };
}

} // namespace Agent
