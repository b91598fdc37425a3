// What the commands of kestrelctl do, one function each. Most send a line of the scenario grammar and print
// the text that the agent made of the result, so that the grammar and its tables live in one place, the
// agent.
//
// Each writes its result to `out`, throws what Client throws, and returns the exit status.
// Read next: Client.h; Watch.h for the commands that follow changes.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace Ctl {

class Client;

/// How results are wanted, and where they go.
struct Output {
    std::ostream& out;
    std::ostream& err;
    bool json = false; ///< the result object as it came instead of text
};

/// A line of the scenario grammar. What sets and removes is one too: only the agent knows whether a lone word
/// is a set's member or a value.
struct LineCommand {
    std::vector<std::string> words;
    bool raw = false; ///< past the agent's guards
};

struct GetCommand {
    std::string path;
    std::string attribute;
    std::string key;   ///< JSON or a bare word; empty is none
    std::string after; ///< likewise
    std::uint64_t limit = 0;
};

struct ApplyCommand {
    std::string file; ///< "-" is standard input
    bool dryRun = false;
    bool raw = false; ///< past the agent's guards
};

struct TraceCommand {
    std::string facility;
    int level = -1;         ///< -1 asks for the levels
    std::uint64_t last = 0; ///< with more than 0, that many of the ring's last records
};

int runLine(Client& client, const LineCommand& command, const Output& output);
int runGet(Client& client, const GetCommand& command, const Output& output);
/// @throws std::runtime_error when the file can't be read or is no UTF-8, naming file and line.
int runApply(Client& client, const ApplyCommand& command, const Output& output);
int runTrace(Client& client, const TraceCommand& command, const Output& output);
int runSchema(Client& client, const std::string& type, const Output& output);
int runStatus(Client& client, const Output& output);
int runKernel(Client& client, bool verify, const Output& output);

} // namespace Ctl
