// What the commands of kestrelctl do, one function each. Most send a line of the grammar and print the text
// that the agent made of the result, so that the grammar and its tables live in one place, the agent.
//
// Each writes its result to `out`, throws what Client throws, and returns the exit status.
// Read next: Client.h; Watch.h for the commands that follow changes.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace Ctl {

class Client;

/// Exit statuses.
constexpr int exitDone = 0;
constexpr int exitFailed = 1;
constexpr int exitUsage = 2;
constexpr int exitTimedOut = 3;

/// How results are wanted, and where they go.
struct Output {
    std::ostream& out;
    std::ostream& err;
    bool isJson = false; // results and errors as they came, instead of the text that the agent makes of them
};

/// A line of the grammar.
struct LineCommand {
    std::vector<std::string> words;
    bool isRaw = false; // past the agent's guards
};

struct ApplyCommand {
    std::string file; // "-" is standard input
    bool isDryRun = false;
    bool isRaw = false; // past the agent's guards
};

/// Asks for page after page of what comes in pages, unless a limit is given, and prints them as they come.
int runLine(Client& client, const LineCommand& command, const Output& output);
/// @throws std::runtime_error when the file can't be read or is no UTF-8, naming file and line.
int runApply(Client& client, const ApplyCommand& command, const Output& output);

} // namespace Ctl
