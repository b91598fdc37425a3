// How results are wanted and where they go, and how the program ends.
#pragma once

#include <iosfwd>

namespace Ctl {

/// Exit statuses.
constexpr int exitDone = 0;
constexpr int exitFailed = 1;
constexpr int exitUsage = 2;
constexpr int exitTimedOut = 3;

struct Output {
    std::ostream& out;
    std::ostream& err;
    bool isJson = false; // results and errors as they came, instead of the text that the agent makes of them
};

} // namespace Ctl
