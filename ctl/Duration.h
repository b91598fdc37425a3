// Durations as they are written on the command line.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace Ctl {

/// A duration such as "500ms", "2s", "1m" or "2" (seconds); nothing for any other text.
std::optional<std::chrono::milliseconds> durationOf(std::string_view text);

/// "2s", or "500ms" where it is no whole number of seconds.
std::string durationText(std::chrono::milliseconds duration);

} // namespace Ctl
