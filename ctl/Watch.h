// The commands that follow the agent's answers as they change: `watch` and `wait`.
#pragma once

#include "ctl/Commands.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Ctl {

struct WatchCommand {
    std::string instance;  // of the agent whose changes were seen; empty begins anew
    std::uint64_t seq = 0; // the last of them
};

struct WaitCommand {
    std::vector<std::string> words; // of the expectation: mroute ... = ...
    std::chrono::milliseconds timeout{5000};
};

/// A duration such as "500ms", "2s", "1m" or "2" (seconds); nothing for any other text.
std::optional<std::chrono::milliseconds> durationOf(std::string_view text);

/// Prints the answers, then a line a change, until it is interrupted or the agent goes. Says then on `err`
/// how to go on from there.
int runWatch(Client& client, const WatchCommand& command, const Output& output);

/// Waits until an expectation holds: asks once, and again after each change that the agent tells.
/// @return exitTimedOut when the time ran out; `err` then has both sides.
int runWait(Client& client, const WaitCommand& command, const Output& output);

} // namespace Ctl
