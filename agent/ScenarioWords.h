// A line of the scenario grammar as words, and a reader that takes them one by one.
//
// Words are separated by blanks; one in double quotes may hold blanks, with \" and \\ as escapes; # begins a
// comment. What is wrong is told as an OperationError whose text names the word it stumbled over. Read next:
// StateCommands.h, ScenarioGrammar.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

/// The words of a line; none for a blank or comment line. @throws OperationError for an unfinished quote.
std::vector<std::string> splitWords(std::string_view line);

class WordReader {
  public:
    explicit WordReader(std::vector<std::string> words)
        : words_(std::move(words)) {}

    bool atEnd() const { return next_ == words_.size(); }
    /// Takes the next word. @param what names it in the error when there is none.
    std::string word(std::string_view what);
    /// Takes the next word if it is this one.
    bool accept(std::string_view keyword);
    /// Takes the next word, which must be this one.
    void expect(std::string_view keyword);
    std::uint64_t number(std::string_view what, std::uint64_t most);
    /// "on" or "off".
    bool onOff(std::string_view what);
    /// Nothing may follow.
    void expectEnd() const;
    [[noreturn]] void refuse(std::string_view wanted) const;

  private:
    std::vector<std::string> words_;
    std::size_t next_ = 0;
};

} // namespace Agent
