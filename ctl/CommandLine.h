// The command line of kestrelctl: options, commands and their help, and the exit status.
//
// Read next: Commands.h, what the commands do; Words.h, how words become a line of the scenario grammar.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace Ctl {

/// Exit statuses.
constexpr int exitDone = 0;
constexpr int exitFailed = 1;
constexpr int exitUsage = 2;
constexpr int exitTimedOut = 3;

/// Runs one command.
/// @param arguments without the program's name.
/// @return the exit status. Results go to out, errors to err.
int run(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err);

} // namespace Ctl
