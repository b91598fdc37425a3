#include "agent/language/Queries.h"

#include "agent/json/Json.h"
#include "agent/language/StateCommands.h"
#include "state/Trace.h"
#include "text/Nearest.h"
#include "text/Words.h"

#include <algorithm>
#include <span>
#include <utility>

namespace Agent {

namespace {

using State::AttributeKind;
using State::Datum;

[[noreturn]] void refuse(const std::string& message, std::string field,
                         RefusalKind kind = RefusalKind::invalid) {
    throw Refusal(kind, message, {.field = std::move(field)});
}

std::string plain(const Datum& datum) {
    return datum.text() != nullptr ? *datum.text() : Json::textOf(datum);
}

// Writes a member of a collection. @param isLine whether it stands on a line of its own, for people.
void writeMember(Text::Writer& writer, bool isLine, AttributeKind kind, const Datum& key,
                 const Datum& value) {
    if (isLine) {
        writer.value(kind == AttributeKind::set ? plain(key) : plain(key) + " = " + plain(value));
    } else if (kind == AttributeKind::set) {
        Json::write(writer, key);
    } else {
        writer.beginRecord();
        writer.field("key");
        Json::write(writer, key);
        writer.field("value");
        Json::write(writer, value);
        writer.end();
    }
}

void getAttribute(const Operations& operations, const GetQuery& query, std::string_view name,
                  Text::Writer& writer) {
    const AttributeKind kind = operations.attributeAt(query.path, name).kind();
    if (query.key || kind == AttributeKind::value) {
        Json::write(writer, operations.value(query.path, name, pointerTo(query.key)).value_or(Datum()));
        return;
    }
    const std::size_t limit = query.limit.value_or(GetQuery::pageMembers);
    const bool isLine = writer.isForPeople() && !query.attribute.empty();
    std::size_t count = 0;
    std::size_t bytes = 0;
    bool isCut = false;
    writer.beginList();
    const std::size_t size = operations.eachMember(query.path, name, pointerTo(query.after),
                                                   [&](const Datum& key, const Datum& value) {
                                                       isCut = count == limit || bytes >= Json::pageBytes;
                                                       if (isCut)
                                                           return false;
                                                       writeMember(writer, isLine, kind, key, value);
                                                       bytes += Json::lengthOf(key) + Json::lengthOf(value);
                                                       ++count;
                                                       return true;
                                                   });
    writer.end();
    if (isCut && !query.limit)
        refuse(std::string(name) + " at " + query.path + " has " + std::to_string(size) +
                   " members, more than fit one answer: read them in pages, with limit and after",
               "limit", RefusalKind::limit);
}

// Refuses keys that are none of the attribute's.
void checkMember(const Operations& operations, const GetQuery& query, AttributeKind kind) {
    if (query.key) {
        static_cast<void>(operations.value(query.path, query.attribute, &*query.key));
    } else if (query.after && kind != AttributeKind::value) {
        try {
            static_cast<void>(operations.value(query.path, query.attribute, &*query.after));
        } catch (Refusal& refusal) {
            refusal.where().field = "after";
            throw;
        }
    }
}

// A page of trace records, and the number of its last one if it was cut short.
struct RecordPage {
    std::vector<State::TraceRecord> records;
    std::optional<std::uint64_t> more = {};
};

RecordPage recordsOf(const TraceQuery& query) {
    const std::uint64_t end = State::traceNext();
    const std::uint64_t last = std::min(*query.last, end);
    const std::uint64_t first = query.after ? std::min(*query.after, end) + 1 : end - last;
    RecordPage page{.records = State::traceRecordsSince(first, std::min(last, TraceQuery::pageRecords))};
    auto& records = page.records;
    bool isCut = last > TraceQuery::pageRecords && records.size() == TraceQuery::pageRecords;
    std::size_t bytes = 0;
    const auto isBeyond = [&](const State::TraceRecord& record) {
        return std::exchange(bytes, bytes + record.message.size()) >= Json::pageBytes;
    };
    if (const auto beyond = std::ranges::find_if(records, isBeyond); beyond != records.end()) {
        records.erase(beyond, records.end());
        isCut = true;
    }
    if (isCut && records.back().n + 1 < end)
        page.more = records.back().n;
    return page;
}

void writeRecords(Text::Writer& writer, std::span<const State::TraceRecord> records) {
    writer.beginList();
    for (const State::TraceRecord& record : records) {
        if (writer.isForPeople()) {
            std::string line;
            State::appendTraceLine(line, record);
            line.pop_back();
            writer.value(line);
            continue;
        }
        writer.beginRecord();
        writer.member("n", record.n);
        writer.member("time", record.time);
        writer.member("level", record.level);
        writer.member("facility", record.facility);
        writer.member("file", record.file);
        writer.member("line", record.line);
        writer.member("function", record.function);
        writer.member("message", record.message);
        writer.end();
    }
    writer.end();
}

void writeLevels(Text::Writer& writer, const TraceQuery& query) {
    static constexpr std::string_view columns[] = {"facility", "level"};
    writer.beginTable(columns);
    for (const State::TraceLevel& known : State::traceLevels())
        if (!query.facility || *query.facility == known.facility)
            writer.record("facility", known.facility, "level", known.level, "loaded", known.isLoaded);
    writer.end();
}

void checkQuery(const Operations& operations, const GetQuery& query) {
    if (!query.attribute.empty())
        checkMember(operations, query, operations.attributeAt(query.path, query.attribute).kind());
    else if (static_cast<void>(operations.typeAt(query.path)); query.key || query.after)
        refuse("a key is that of an attribute's member: name the attribute", "attribute");
    if (query.limit.value_or(0) > GetQuery::pageMembers)
        refuse("an answer has at most " + std::to_string(GetQuery::pageMembers) + " members", "limit");
}

void checkQuery(const TraceQuery& query) {
    if (query.last && (query.facility || query.level))
        refuse("either the latest records are wanted, or levels", "last");
    if (query.after && !query.last)
        refuse("after is for the latest records: say how many, with last", "after");
    if (query.level && !query.facility)
        refuse("a level is that of a facility: name it", "facility");
    if (query.level.value_or(0) > TraceQuery::maxLevel)
        refuse("levels run from 0 to " + std::to_string(TraceQuery::maxLevel), "level");
    if (!query.facility)
        return;
    const auto known = State::traceLevels();
    const auto names = Text::namesOf(known, &State::TraceLevel::facility);
    if (std::ranges::find(names, *query.facility) == names.end())
        refuse("there is no trace facility \"" + *query.facility + "\"" +
                   Text::suggestion(*query.facility, names),
               "facility");
}

} // namespace

Action readGet(const Operations& operations, WordReader& words) {
    // At each word, so that a refusal names the one that is wrong.
    GetQuery query{.path = words.word("a path")};
    const auto check = [&] { checkQuery(operations, query); };
    words.checkLast(check);
    if (!words.atEnd()) {
        query.attribute = words.word("an attribute");
        words.checkLast(check);
    }
    while (!words.atEnd()) {
        if (words.accept("limit"))
            query.limit = words.number("how many members", GetQuery::pageMembers);
        else if (words.accept("after"))
            query.after = datumOfWord(words.word("the key of a member"));
        else if (!query.key)
            query.key = datumOfWord(words.word("a key"));
        else
            words.expectEnd();
        words.checkLast(check);
    }
    return [&operations, query](const Text::Reply& reply) {
        reply([&](Text::Writer& writer) { get(operations, query, writer); });
    };
}

void get(const Operations& operations, const GetQuery& query, Text::Writer& writer) {
    checkQuery(operations, query);
    if (!query.attribute.empty()) {
        getAttribute(operations, query, query.attribute, writer);
        return;
    }
    writer.beginRecord();
    for (const auto& attribute : operations.typeAt(query.path).attributes()) {
        writer.field(attribute->name());
        getAttribute(operations, query, attribute->name(), writer);
    }
    writer.end();
}

Action readTrace(WordReader& words) {
    TraceQuery query;
    if (words.accept("last")) {
        query.last = words.number("how many records", 1'000'000);
        if (words.accept("after"))
            query.after = words.number("the number of a record", UINT64_MAX - 1);
    } else if (!words.atEnd()) {
        query.facility = words.word("a facility");
        words.checkLast([&] { checkQuery(query); });
        query.level = words.number("a level", TraceQuery::maxLevel);
    }
    return [query](const Text::Reply& reply) { trace(query, reply); };
}

void trace(const TraceQuery& query, const Text::Reply& reply) {
    checkQuery(query);
    if (query.level)
        State::traceLevelIs(*query.facility, static_cast<int>(*query.level));
    const RecordPage page = query.last ? recordsOf(query) : RecordPage();
    reply([&](Text::Writer& writer) {
        const bool isRecord = !writer.isForPeople();
        if (isRecord) {
            writer.beginRecord();
            writer.field(query.last ? "records" : "levels");
        }
        if (query.last)
            writeRecords(writer, page.records);
        else
            writeLevels(writer, query);
        if (page.more && isRecord)
            writer.member("more", *page.more);
        else if (page.more)
            writer.value("more: after " + std::to_string(*page.more));
        if (isRecord)
            writer.end();
    });
}

} // namespace Agent
