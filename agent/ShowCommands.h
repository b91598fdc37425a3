// `show mroute|mgroup|vrfs|routes|requests|groups`: what the stores hold, as typed rows, sorted by VRF, group
// and source, and the same rows as tables of text.
#pragma once

#include "agent/Operations.h"

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <string_view>

namespace Agent {

/// What `show` can show.
bool isShown(std::string_view what);
/// {"show": what, "rows": [{column: value, ...}, ...]}.
nlohmann::json show(const Operations& operations, std::string_view what);
/// The rows as a table.
std::string showText(const nlohmann::json& shown);

/// One answer in words, without newline: "mroute (10.0.0.1, 239.1.1.1) in red for Ethernet5 vlan 10:
/// Ethernet1 Ethernet2". A value of null says "gone".
std::string answerText(const nlohmann::json& answer);

} // namespace Agent
