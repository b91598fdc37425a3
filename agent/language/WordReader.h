// How a line is read: its words (text/Words.h), taken one by one, and what a verb makes of them. What is wrong is told
// as a Refusal whose text names the word it stumbled over, and whose place is the number of that word.
//
// Language.h has the table of verbs; others add verbs of their own (the kernel source has `kernel`). How a verb is
// written, and what help says of it, is in text/Verbs.h, under the same name.
#pragma once

#include "text/Writer.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

class WordReader {
  public:
    explicit WordReader(std::vector<std::string> words)
        : words_(std::move(words)) {}

    bool atEnd() const { return next_ == words_.size(); }
    /// Takes the next word. @param what names it in the error when there is none.
    std::string word(std::string_view what);
    /// Takes the next word if it is this one.
    bool accept(std::string_view keyword);
    /// Takes the next word, which must be this one; the reader, for what follows.
    WordReader& expect(std::string_view keyword);
    /// Takes the next word, which must be one of these; its place among them. The refusal suggests the nearest.
    /// @param what names them: "a route type".
    std::size_t oneOf(std::string_view what, std::span<const std::string_view> words);
    std::uint64_t number(std::string_view what, std::uint64_t most);
    /// The number that a word is, if it is one up to `most`.
    static std::optional<std::uint64_t> numberIn(std::string_view word, std::uint64_t most);
    /// "on" or "off".
    bool onOff(std::string_view what);
    /// Nothing may follow.
    void expectEnd() const;
    /// Refuses the next word. @param more stands behind the message.
    [[noreturn]] void refuse(std::string_view wanted, std::string_view more = {}) const;
    /// Refuses the word taken last, with a text of its own.
    [[noreturn]] void refuseLast(const std::string& message) const;
    /// Has the word taken last checked: what `check` throws as a Refusal goes on with the number of that word.
    void checkLast(const std::function<void()>& check) const;

  private:
    std::vector<std::string> words_;
    std::size_t next_ = 0;
};

class StateCommands;

/// What a line asks for, read and checked, ready to be carried out. @throws Refusal; what it calls raises.
using Action = std::function<void(const Text::Reply&)>;

/// A verb of the grammar: the word with which a line begins, and what reads the rest of the line.
struct Verb {
    std::string_view name;
    /// Reads the words behind the verb, and checks them as far as the state allows; carries out nothing.
    /// @param names knows the names that earlier lines gave.
    /// @throws Refusal that names the word it stumbled over.
    std::function<Action(WordReader& words, const StateCommands& names)> read;
};

} // namespace Agent
