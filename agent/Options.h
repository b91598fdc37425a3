// The agent's command line. Read next: Application.h, which does what it says.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace Agent {

/// Exit statuses of the agent.
constexpr int exitClean = 0;
constexpr int exitFailed = 1;
constexpr int exitUsage = 2;

/// An option that cannot be followed; the text names it.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string socket; // empty: the default
    bool isStdio = false;
    std::uint32_t clientMemory = 64; // MiB that may be held for all clients together
    std::string preload;             // files; empty: none
    std::string play;
    bool exitAfterPlay = false;
    std::string kernel;
    std::string chip; // how the software chip works, "deferred" or "sync"; empty: there is none
    std::vector<std::pair<std::string, bool>> toggles;
    std::string toggleDirectory; // empty: as the environment says
    std::vector<std::pair<std::string, int>> traceLevels;
    std::string plugin; // the library, unless given the one that is built or installed beside the agent
    bool checkOnly = false;
};

/// What a command line asks for: options to run with, or (after --help, --version or an error, which has
/// been printed) an exit status.
std::variant<Options, int> readCommandLine(int argc, const char* const* argv, std::ostream& out,
                                           std::ostream& err);

} // namespace Agent
