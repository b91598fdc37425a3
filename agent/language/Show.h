// `show mroute|mgroup|vrfs|routes|requests|groups`: what the stores hold, as rows sorted by VRF, group and source.
#pragma once

#include "agent/changes/Operations.h"
#include "text/Writer.h"

#include <string_view>
#include <vector>

namespace Agent {

/// What `show` can show.
std::vector<std::string_view> shownNames();
/// Writes {"show": what, "rows": [{column: value, ...}, ...]}; for people the rows as a table.
/// @param what one of shownNames().
void show(const Operations& operations, std::string_view what, Text::Writer& writer);

} // namespace Agent
