// `get` and `trace`, once for lines and methods: what is asked, held against what there is, and the result written.
#pragma once

#include "agent/changes/Operations.h"
#include "agent/language/WordReader.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Agent {

struct GetQuery {
    /// Most members of a collection in one result.
    static constexpr std::size_t pageMembers = 1000;

    std::string path;
    std::string attribute = {};             // empty: all of them
    std::optional<State::Datum> key = {};   // of a member
    std::optional<std::size_t> limit = {};  // most members
    std::optional<State::Datum> after = {}; // the member behind which to begin
};

/// Reads what stands behind "get".
Action readGet(const Operations& operations, WordReader& words);
/// Writes the value (null where there is none); a collection, or with `limit` a page of it, as a list, of keys or of
/// {key, value}; without an attribute a record of all. For people a member of a collection named is a line.
/// @throws Refusal when the path, the attribute, a key or the form of the question is none, when `after` is no member,
/// for more members than fit a result.
void get(const Operations& operations, const GetQuery& query, Text::Writer& writer);

struct TraceQuery {
    static constexpr int maxLevel = 9;
    /// Most records of a page.
    static constexpr std::uint64_t pageRecords = 512;

    std::optional<std::string> facility = {};
    std::optional<std::uint64_t> level = {}; // to set
    std::optional<std::uint64_t> last = {};  // the ring's last records instead of levels
    std::optional<std::uint64_t> after =
        {}; // instead the first so many of those behind the one of this number
};

/// Reads what stands behind "trace".
Action readTrace(WordReader& words);
/// Sets the level, if one is given, and replies with the levels, or a page of the records: {"records", "more"}, of
/// which "more", the number of the last, is there if the page was cut short of those asked for.
/// @throws Refusal for a facility that there is not, a level that is none, or what does not go together.
void trace(const TraceQuery& query, const Text::Reply& reply);

} // namespace Agent
