// A function run in a forked child of the agent, on a copy of everything that it has: what it returns, or how
// it came to its end.
//
// The child says both on its standard error, a file in memory; every other descriptor but standard input and output is
// closed in it, above all the loop's and the sockets. It says no last words and leaves no core file. The parent waits
// for it.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace Agent {

/// What a dry run foretells: its result as the caller told it, or the end that the process would come to.
struct DryRunResult {
    std::optional<std::string> told;
    std::string fatal; // without `told`: what would be said on standard error, or how the process would end
};

/// Runs `work` in a child. An exception that leaves it counts as said on standard error.
/// @throws Refusal when it takes more than ten seconds: the child is ended then; std::system_error when there can be
/// no child.
DryRunResult runDry(const std::function<std::string()>& work);

} // namespace Agent
