// Words and what they stand for: a line of the scenario grammar, a JSON value, a duration.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace Ctl {

/// One line of the scenario grammar. A word that is empty or holds a blank, a quote, a backslash, a control
/// byte or
/// '#' stands in double quotes, with \" and \\ for a quote and a backslash.
std::string joinWords(const std::vector<std::string>& words);

/// A word as a JSON value; one that is no JSON is a string.
nlohmann::ordered_json valueOf(const std::string& word);

/// A duration such as "500ms", "2s", "1m" or "2" (seconds); nothing for any other text.
std::optional<std::chrono::milliseconds> durationOf(const std::string& text);

} // namespace Ctl
