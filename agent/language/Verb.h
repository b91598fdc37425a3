// A verb of the grammar: the word with which a line begins, and what reads the rest of the line.
//
// Language.h has the table; others add verbs of their own (the kernel source has `kernel`). How a verb is written,
// and what help says of it, is in text/Verbs.h, under the same name.
#pragma once

#include "agent/language/WordReader.h"
#include "text/Writer.h"

#include <functional>
#include <string_view>

namespace Agent {

class StateCommands;

/// What a line asks for, read and checked, ready to be carried out. @throws Refusal; what it calls raises.
using Action = std::function<void(const Text::Reply&)>;

struct Verb {
    std::string_view name;
    /// Reads the words behind the verb, and checks them as far as the state allows; carries out nothing.
    /// @param names knows the names that earlier lines gave.
    /// @throws Refusal that names the word it stumbled over.
    std::function<Action(WordReader& words, const StateCommands& names)> read;
};

} // namespace Agent
