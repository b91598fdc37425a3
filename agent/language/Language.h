// The one grammar of scenario files, preloaded state and the client's lines: a table of verbs (WordReader.h), by which
// lines are read, checked and carried out. State commands, which become changes, are in StateCommands.h.
//
// The application owns it. Read next: Queries.h, Show.h, Expectations.h.
#pragma once

#include "agent/language/Expectations.h"
#include "agent/language/Show.h"

#include <functional>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

class Language {
  public:
    /// @param operations outlives it.
    /// @param settle does deferred work (the software chip's) before an expectation is held against the state.
    Language(Operations& operations, std::function<void()> settle);

    /// Adds a verb of somebody else's.
    void addVerb(Verb verb);
    /// Adds something that `show` can show, which is always told whole.
    void addShown(std::string name, Text::Tell tell);

    /// Reads a page of one of the things that `show` shows; what writes it.
    /// @throws Refusal for another name, and as checkPage() does.
    Text::Tell shown(const ShowQuery& query) const;

    /// Carries out one line. A state command replies with what changed: {"changed", "answers"}.
    /// @param raw whether its changes pass the guards.
    /// @throws Refusal
    void run(std::string_view line, bool raw, const Text::Reply& reply);

    /// The changes that lines of state commands stand for, each judged by the state as the earlier ones leave it;
    /// comments and blank lines are none.
    /// @throws Refusal with its line, for a line that is no state command.
    std::vector<Change> changes(std::span<const std::string> lines, bool raw);

    /// Puts the state that a file describes into the stores; the plug-in has not been started.
    /// @throws std::runtime_error naming file and line; nothing was put there then.
    void preload(const std::string& file);
    /// Holds a scenario file against grammar, types and guards without playing it: what the play would refuse, but
    /// for expectations that don't hold.
    /// @throws std::runtime_error naming file and line.
    /// @param vrfs that will be there by then, beside those of the file.
    void check(const std::string& file, VrfIds vrfs = {});
    /// Plays a scenario file.
    /// @param out where it tells what happens; what fails is told on standard error.
    /// @return whether every line was carried out and every expectation held.
    /// @throws std::runtime_error when it can't be read.
    bool play(const std::string& file, std::ostream& out);

  private:
    Action readShow(WordReader& words);
    Action readOther(const std::vector<std::string>& words, const StateCommands& names);
    void readLines(std::span<const std::string> lines, StateCommands& commands, bool onlyState);
    void playLine(const std::string& line, std::ostream& out);

    Operations& operations_;
    Expectations expectations_;
    std::vector<Verb> verbs_;
    std::vector<Shown> shown_;
};

} // namespace Agent
