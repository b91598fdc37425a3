// A function run in a forked child of the agent, on a copy of everything that it has: what it returns, or how
// it came to its end.
//
// The child has its standard error and a pipe for its result; every other descriptor but standard input and
// output is closed in it, above all the loop's and the sockets. It says no last words and leaves no core
// file. The parent waits for it.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace Agent {

struct ForkedResult {
    std::optional<std::string> result; // what the function returned
    std::string end;                   // without a result: what it said on standard error, or how it ended
    bool isOverdue = false;            // it was ended because it took too long
};

/// Runs `work` in a child. An exception that leaves it counts as said on standard error.
/// @param limit after which the child is ended.
/// @throws std::system_error when there can be no child.
ForkedResult runForked(const std::function<std::string()>& work, std::chrono::milliseconds limit);

} // namespace Agent
