// The commands of kestrelctl that are lines of the scenario grammar, and what their help says. The grammar
// itself is the agent's: here stands only which words begin a line.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace Ctl {

struct LineHelp {
    std::string name;
    std::vector<std::string> words; ///< with which the line begins
    bool takesMore = true;          ///< whether the user adds words
    bool changes = false;           ///< whether guards may refuse it, so that it takes --raw
    std::string summary;
    std::string forms;      ///< of the line, a line each
    std::string notes = {}; ///< what else should be known
};

std::span<const LineHelp> lineCommands();

/// The forms of an expected answer, as `expect` and `wait` take them.
/// @param command the word in front.
std::string answerForms(const std::string& command);

} // namespace Ctl
