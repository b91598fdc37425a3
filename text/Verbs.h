// The verbs of the grammar as help tells them: one table for the agent, its client's --help and the documentation.
// What a verb does is in the agent, under the same name.
#pragma once

#include <span>
#include <string_view>

namespace Text {

struct VerbHelp {
    std::string_view name;
    bool changes = false;        // a state command: guards may refuse it, so that it can be raw
    std::string_view summary;    // one sentence
    std::string_view forms;      // how the line is written, a line each, each ended by a newline
    std::string_view notes = {}; // what else should be known
};

std::span<const VerbHelp> verbs();
/// Null for a word that is no verb.
const VerbHelp* verb(std::string_view name);

} // namespace Text
