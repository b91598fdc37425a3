// The trace log. At the top of a .cpp file `TRACE_FACILITY( "KestrelNatMulticastMounter" );`, then
//
//     TRACE( 8, "NatVrfDirSm::", "handleVrf", " vrfName=", vrfName );
//
// Levels: 0 for what is unexpected, 6 for start-up, 8 for normal flow, 9 for detail. The message is the
// pieces joined without separators. Each statement writes one record into the ring (state/TraceRing.h): an
// event number that stands for the statement with its string literals, and the raw values
// (state/TraceValue.h); nothing is formatted until someone reads. Besides, where the facility's level is at
// least the statement's, one whole line goes to the text trace. Every facility starts at level 0. One thread
// traces.
#pragma once

#include "state/TraceRing.h"
#include "state/TraceValue.h"

#include <array>
#include <cstdio>
#include <initializer_list>
#include <utility>
#include <vector>

namespace State {

// ---- reading and control ------------------------------------------------------------------------

/// One record in words. The views live as long as the module that traced.
struct TraceRecord {
    std::uint64_t n = 0;    // counts the process's records from 0
    std::uint64_t time = 0; // of the outside event it belongs to, in nanoseconds since 1970 (UTC)
    int level = 0;
    std::string_view facility;
    std::string_view file; // path from the repository's root
    unsigned line = 0;
    std::string_view function;
    std::string message;
};

/// The records from number `first` on, at most so many, or the `count` latest, oldest first. A record that cannot be
/// read says so in its message; where the ring is damaged, one such record ends the list.
std::vector<TraceRecord> traceRecordsSince(std::uint64_t first, std::size_t most = SIZE_MAX);
std::vector<TraceRecord> traceRecordsLast(std::size_t count);
/// Number of the next record; of the oldest that is still in the ring (equal: none is).
std::uint64_t traceNext();
std::uint64_t traceOldest();

/// Appends a record as one line of text, with its newline: time, level, facility, file:line, function,
/// message. Control characters in the message are escaped.
void appendTraceLine(std::string& out, const TraceRecord& record);
/// Prints the latest records as lines; fit for the last words of a process (state/Fatal.h).
void traceDumpLast(std::size_t count, std::FILE* file);

/// Hands the ring its memory: see TraceRing::memoryIs. An empty span switches the ring off.
void traceRingIs(std::span<std::byte> memory);
/// Begins an outside event: the records that follow share this time (in nanoseconds since 1970, UTC), or now.
void traceTimeIs(std::uint64_t time);
void traceEventBegin();

/// Lines of `facility` up to `level` (0 to 9, else RangeError) go to the text trace. Holds for modules loaded
/// later.
void traceLevelIs(std::string_view facility, int level);
struct TraceLevel {
    std::string facility;
    int level;
    bool isLoaded; // a loaded module traces under this facility
};
/// Every facility that is loaded or was given a level, by name.
std::vector<TraceLevel> traceLevels();

/// Where the text trace goes; null: standard error, in the form of appendTraceLine. A sink must not throw.
using TraceSink = void (*)(void* context, const TraceRecord& record);
void traceSinkIs(TraceSink sink, void* context);

// ---- what TRACE is made of ----------------------------------------------------------------------

/// A source file's part in a facility.
struct TraceFacility {
    const char* name;
    int level = 0;                 // of the facility, kept up to date
    TraceFacility* next = nullptr; // in the list of those that are loaded
};

/// Enters a file's part in the list while its module is loaded.
class TraceFacilityEntry {
  public:
    explicit TraceFacilityEntry(TraceFacility& facility);
    ~TraceFacilityEntry();
    TraceFacilityEntry(const TraceFacilityEntry&) = delete;
    TraceFacilityEntry& operator=(const TraceFacilityEntry&) = delete;

  private:
    TraceFacility& facility_;
};

/// One TRACE statement.
struct TraceSite {
    const TraceFacility& facility;
    int level;
    const char* file;
    unsigned line;
    const char* function;
    std::uint32_t event = 0; // assigned when its first record is written
};

/// Which of a statement's pieces are string literals.
struct TracePieces {
    std::size_t count = 1;
    std::uint64_t literals = 0;
    constexpr bool isLiteral(std::size_t piece) const { return (literals >> piece & 1U) != 0; }
};

/// Found from the text of the pieces, as a literal cannot be told from other character arrays by its type.
consteval TracePieces tracePieces(std::string_view code) {
    const auto isWord = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    };
    TracePieces pieces;
    std::size_t depth = 0;
    bool literal = true;
    for (std::size_t i = 0; i < code.size(); ++i) {
        const char c = code[i];
        if (c == '"' || (c == '\'' && (i == 0 || !isWord(code[i - 1])))) {
            for (++i; i < code.size() && code[i] != c; ++i)
                i += code[i] == '\\' ? 1 : 0;
            literal = literal && c == '"';
        } else if (c == ',' && depth == 0) {
            pieces.literals |= std::uint64_t{literal} << (pieces.count - 1);
            ++pieces.count;
            literal = true;
        } else {
            depth += c == '(' || c == '[' || c == '{' ? 1U : 0U;
            depth -= c == ')' || c == ']' || c == '}' ? 1U : 0U;
            literal = literal && c == ' ';
        }
    }
    pieces.literals |= std::uint64_t{literal} << (pieces.count - 1);
    return pieces;
}

using TraceDecode = void (*)(TraceReader& reader, std::string& out, const std::string_view* literals);

/// Gives the site its event number. `literals` has one entry a piece, empty for values.
[[gnu::cold]] void registerTraceSite(TraceSite& site, TraceDecode decode,
                                     std::initializer_list<std::string_view> literals);
/// Sends a line to the text trace.
void traceLine(const TraceSite& site, std::string message);

template <TracePieces pieces, class Indexes, class... Args>
class TraceCall;

template <TracePieces pieces, std::size_t... indexes, class... Args>
class TraceCall<pieces, std::index_sequence<indexes...>, Args...> {
  public:
    [[gnu::always_inline]] static void record(TraceSite& site, const Args&... args) {
        const std::uint32_t event = site.event != 0 ? site.event : registerSite(site, args...);
        if constexpr (isRaw) {
            std::byte* const begin = traceRing.reserve(traceRoundUp(rawBytes));
            putHead(begin, event, rawBytes);
            std::byte* at = begin + sizeof(TraceRecordHead);
            (putRaw<indexes>(at, args), ...);
            traceRing.commit(begin + traceRoundUp(rawBytes));
        } else {
            std::byte* const begin = traceRing.reserve(traceRecordBytes);
            TraceWriter writer(begin + sizeof(TraceRecordHead), begin + traceRecordBytes);
            (put<indexes>(writer, args), ...);
            const auto size = static_cast<std::size_t>(writer.position() - begin);
            putHead(begin, event, size);
            traceRing.commit(begin + traceRoundUp(size));
        }
    }

    [[gnu::noinline, gnu::cold]] static void line(const TraceSite& site, const Args&... args) {
        std::string message;
        (append<indexes>(message, args), ...);
        traceLine(site, std::move(message));
    }

  private:
    template <class Arg>
    using Value = std::decay_t<const Arg&>;

    [[gnu::noinline, gnu::cold]] static std::uint32_t registerSite(TraceSite& site, const Args&... args) {
        registerTraceSite(site, decode, {literal<indexes>(args)...});
        return site.event;
    }

    static constexpr std::size_t rawBytes =
        (sizeof(TraceRecordHead) + ... + (pieces.isLiteral(indexes) ? 0 : sizeof(Value<Args>)));
    static constexpr bool isRaw = (... && (pieces.isLiteral(indexes) || TraceValue<Value<Args>>::isRaw)) &&
                                  rawBytes <= traceRecordBytes;

    static void putHead(std::byte* at, std::uint32_t event, std::size_t size) {
        const TraceRecordHead head{event, static_cast<std::uint32_t>(size)};
        std::memcpy(at, &head, sizeof head);
    }

    template <std::size_t piece, class Arg>
    static void putRaw(std::byte*& at, const Arg& arg) {
        if constexpr (!pieces.isLiteral(piece)) {
            std::memcpy(at, &arg, sizeof arg);
            at += sizeof arg;
        }
    }

    template <std::size_t piece, class Arg>
    static void put(TraceWriter& writer, const Arg& arg) {
        if constexpr (!pieces.isLiteral(piece))
            writer.value<Value<Arg>>(arg);
    }

    template <std::size_t piece, class Arg>
    static void append(std::string& message, const Arg& arg) {
        if constexpr (pieces.isLiteral(piece))
            message += literal<piece>(arg);
        else
            traceText<Value<Arg>>(message, arg);
    }

    template <std::size_t piece, class Arg>
    static std::string_view literal(const Arg& arg) {
        if constexpr (pieces.isLiteral(piece))
            return std::string_view(arg, sizeof arg - 1);
        else
            return {};
    }

    static void decode(TraceReader& reader, std::string& out, const std::string_view* literals) {
        (decodePiece<indexes, Args>(reader, out, literals), ...);
    }

    template <std::size_t piece, class Arg>
    static void decodePiece(TraceReader& reader, std::string& out, const std::string_view* literals) {
        if constexpr (pieces.isLiteral(piece))
            out += literals[piece];
        else
            reader.value<Value<Arg>>(out);
    }
};

template <TracePieces pieces, int level, class... Args>
[[gnu::always_inline]] inline void trace(TraceSite& site, const TraceFacility& facility,
                                         const Args&... args) {
    static_assert(pieces.count == sizeof...(Args),
                  "put a piece with a comma in angle brackets into parentheses");
    static_assert(sizeof...(Args) <= 64 && level >= 0 && level <= 9);
    using Call = TraceCall<pieces, std::index_sequence_for<Args...>, Args...>;
    if (traceRing.isOn()) [[likely]]
        Call::record(site, args...);
    if (level <= facility.level) [[unlikely]]
        Call::line(site, args...);
}

} // namespace State

// Names the facility under which the TRACE statements of this .cpp file trace.
#define TRACE_FACILITY(facilityName)                                                                         \
    namespace {                                                                                              \
    constinit ::State::TraceFacility traceFacilityOfThisFile{facilityName};                                  \
    const ::State::TraceFacilityEntry traceFacilityEntryOfThisFile(traceFacilityOfThisFile);                 \
    }                                                                                                        \
    static_assert(true)

// Traces the pieces that follow the level (a constant): string literals are the statement's text, all else
// are values. The pieces must be free of side effects that anything depends on: with ring and text off they
// are evaluated and dropped.
#define TRACE(traceLevel, ...) TRACE_AS(traceLevel, __func__, __VA_ARGS__)

// The same for a part of a rule that stands in a function of its own, or in a lambda: the statement names the
// function of the rule.
#define TRACE_AS(traceLevel, functionName, ...)                                                              \
    do {                                                                                                     \
        static constinit ::State::TraceSite traceSite{traceFacilityOfThisFile, traceLevel, __FILE__,         \
                                                      __LINE__, functionName};                               \
        ::State::trace<::State::tracePieces(#__VA_ARGS__), traceLevel>(traceSite, traceFacilityOfThisFile,   \
                                                                       __VA_ARGS__);                         \
    } while (false)
