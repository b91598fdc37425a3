#include "state/Trace.h"

#include "state/Errors.h"

#include <chrono>
#include <map>

namespace State {

namespace {

struct Registry {
    struct Site {
        const TraceSite* site; // null: its module is gone
        TraceDecode decode;
        std::vector<std::string_view> literals;
    };

    std::vector<Site> sites; // by event number, from traceFirstSiteEvent on
    std::map<std::string, int, std::less<>> levels;
    TraceFacility* facilities = nullptr;
    TraceSink sink = nullptr;
    void* sinkContext = nullptr;
};

// Never destroyed: files of other modules trace until the very end.
Registry& registry() {
    static Registry& instance = *new Registry;
    return instance;
}

TraceRecord recordOf(const TraceSite& site, std::uint64_t n, std::uint64_t time) {
    return {n, time, site.level, site.facility.name, site.file, site.line, site.function, {}};
}

// Stands for a record that cannot be read.
TraceRecord unreadable(const TraceRingWalk& walk, std::string why) {
    TraceRecord record;
    record.n = walk.number();
    record.time = walk.time();
    record.message = std::move(why);
    return record;
}

// What the walk stands at, in words.
TraceRecord readRecord(const TraceRingWalk& walk) {
    const auto& sites = registry().sites;
    const std::size_t index = std::size_t{walk.event()} - traceFirstSiteEvent;
    if (walk.event() < traceFirstSiteEvent || index >= sites.size())
        return unreadable(walk, "(unknown event " + std::to_string(walk.event()) + ")");
    const Registry::Site& entry = sites[index];
    if (entry.site == nullptr)
        return unreadable(walk, "(its module is not loaded any more)");
    TraceRecord record = recordOf(*entry.site, walk.number(), walk.time());
    TraceReader reader(walk.values().data(), walk.values().data() + walk.values().size());
    entry.decode(reader, record.message, entry.literals.data());
    return record;
}

void appendTime(std::string& out, std::uint64_t time) {
    using namespace std::chrono;
    const sys_time<nanoseconds> point{nanoseconds(time)};
    const auto day = floor<days>(point);
    const year_month_day date(day);
    const hh_mm_ss clock(floor<microseconds>(point - day));
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%06dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
    out += text;
}

void appendPrintable(std::string& out, std::string_view text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
}

} // namespace

std::vector<TraceRecord> traceRecordsSince(std::uint64_t first, std::size_t most) {
    std::vector<TraceRecord> records;
    TraceRingWalk walk(traceRing);
    while (records.size() < most && walk.next())
        if (walk.number() >= first)
            records.push_back(readRecord(walk));
    if (walk.isDamaged())
        records.push_back(unreadable(walk, "(the trace ring is damaged here)"));
    return records;
}

std::vector<TraceRecord> traceRecordsLast(std::size_t count) {
    return traceRecordsSince(traceNext() - std::min<std::uint64_t>(count, traceNext()));
}

std::uint64_t traceNext() {
    return traceRing.next();
}

std::uint64_t traceOldest() {
    return traceRing.oldest();
}

void appendTraceLine(std::string& out, const TraceRecord& record) {
    appendTime(out, record.time);
    out += ' ';
    appendText(out, record.level);
    for (const std::string_view text :
         {std::string_view(" "), record.facility, std::string_view(" "), record.file})
        out += text;
    out += ':';
    appendText(out, record.line);
    out += ' ';
    out += record.function;
    out += ": ";
    appendPrintable(out, record.message);
    out += '\n';
}

void traceDumpLast(std::size_t count, std::FILE* file) {
    for (const TraceRecord& record : traceRecordsLast(count)) {
        std::string line;
        appendTraceLine(line, record);
        std::fwrite(line.data(), 1, line.size(), file);
    }
    std::fflush(file);
}

void traceRingIs(std::span<std::byte> memory) {
    traceRing.memoryIs(memory);
}

void traceTimeIs(std::uint64_t time) {
    traceRing.timeIs(time);
}

void traceEventBegin() {
    traceRing.timeIs(traceNow());
}

void traceLevelIs(std::string_view facility, int level) {
    if (level < 0 || level > 9) {
        throw RangeError("trace level " + std::to_string(level) + " of facility \"" + std::string(facility) +
                         "\" not allowed, levels are 0 to 9");
    }
    registry().levels.insert_or_assign(std::string(facility), level);
    for (TraceFacility* part = registry().facilities; part != nullptr; part = part->next)
        if (part->name == facility)
            part->level = level;
}

std::vector<TraceLevel> traceLevels() {
    std::vector<TraceLevel> levels;
    for (const auto& [name, level] : registry().levels) {
        bool isLoaded = false;
        for (const TraceFacility* part = registry().facilities; part != nullptr; part = part->next)
            isLoaded = isLoaded || part->name == name;
        levels.push_back({name, level, isLoaded});
    }
    return levels;
}

void traceSinkIs(TraceSink sink, void* context) {
    registry().sink = sink;
    registry().sinkContext = context;
}

TraceFacilityEntry::TraceFacilityEntry(TraceFacility& facility)
    : facility_(facility) {
    facility.level = registry().levels.try_emplace(facility.name, 0).first->second;
    facility.next = std::exchange(registry().facilities, &facility);
}

TraceFacilityEntry::~TraceFacilityEntry() {
    for (TraceFacility** part = &registry().facilities; *part != nullptr; part = &(*part)->next) {
        if (*part == &facility_) {
            *part = facility_.next;
            break;
        }
    }
    for (Registry::Site& entry : registry().sites)
        if (entry.site != nullptr && &entry.site->facility == &facility_)
            entry = {};
}

void registerTraceSite(TraceSite& site, TraceDecode decode,
                       std::initializer_list<std::string_view> literals) {
    auto& sites = registry().sites;
    sites.push_back({&site, decode, literals});
    site.event = static_cast<std::uint32_t>(sites.size() - 1) + traceFirstSiteEvent;
}

void traceLine(const TraceSite& site, std::string message) {
    const bool isInRing = traceRing.isOn();
    TraceRecord record = recordOf(site, traceNext() - (isInRing ? 1 : 0), traceRing.time());
    if (record.time == 0)
        record.time = traceNow();
    record.message = std::move(message);
    const Registry& state = registry();
    if (state.sink != nullptr) {
        state.sink(state.sinkContext, record);
        return;
    }
    std::string line;
    appendTraceLine(line, record);
    std::fwrite(line.data(), 1, line.size(), stderr);
}

} // namespace State
