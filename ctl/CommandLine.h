// The command line of kestrelctl: options, commands and their help, and the exit status.
//
// Read next: Commands.h, what the commands do; text/Verbs.h, the commands that are lines of the grammar.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace Ctl {

/// Runs one command.
/// @param arguments without the program's name.
/// @return the exit status (Commands.h). Results go to out, errors to err.
int run(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err);

} // namespace Ctl
