// `show mroute|mgroup|vrfs|routes|requests|groups`: what the stores hold, as rows sorted by VRF, group and source.
#pragma once

#include "agent/changes/Operations.h"
#include "text/Writer.h"

#include <string>
#include <utility>
#include <vector>

namespace Agent {

/// Something that `show` can show: its name, and what writes it.
using Shown = std::pair<std::string, Text::Tell>;

/// What the stores hold. Each writes {"show": name, "rows": [{column: value, ...}, ...]}; for people the rows as a
/// table.
/// @param operations outlives them.
std::vector<Shown> shownTables(const Operations& operations);

} // namespace Agent
