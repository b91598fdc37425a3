// `show mroute|mgroup|vrfs|routes|requests|groups`: what the stores hold, as rows in order, page by page.
//
// A page is picked in one pass over the keys (RowPage.h, Least.h); cells are made of its rows alone. Rows that come and
// go between two pages neither hide others nor show them twice.
#pragma once

#include "agent/changes/Operations.h"
#include "text/Writer.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

struct ShowQuery {
    /// Most rows of a page.
    static constexpr std::size_t pageRows = 512;

    std::string what;
    std::optional<std::uint64_t> limit = {}; // rows
    std::optional<std::string> after = {};   // `more` of the page before
};

/// Something that `show` can show: its name, and what reads a page and gives what writes it.
struct Shown {
    std::string name;
    std::function<Text::Tell(const ShowQuery& query)> page;
    bool hasPages = true; // else it is told whole
};

/// @throws Refusal for a limit or cursor that is none, or of what has no pages.
void checkPage(const Shown& shown, const ShowQuery& query);

/// What the stores hold. Each writes {"show": name, "rows": [{column: value, ...}, ...], "more": cursor}, the last of
/// which is there if there are more rows; for people the rows as a table, and behind it "more: after CURSOR".
/// @param operations outlives them.
std::vector<Shown> shownTables(const Operations& operations);

} // namespace Agent
