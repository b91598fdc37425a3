// A result that comes in pages, asked for line by line as if it were one.
//
// A page of `show` or `trace` says itself that there are more, as "more" in the result and in the last line of its
// text. A collection that `get` can't tell whole is refused, is then asked for in pages, and ends with an empty one.
// Read next: runLine in Commands.cpp, which prints them.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Ctl {

class AgentError;
class Message;

class Pages {
  public:
    /// @param words of the line as the user gave it.
    explicit Pages(std::vector<std::string> words)
        : words_(std::move(words)) {}

    /// The words of the line that asks for the next page.
    const std::vector<std::string>& words() const { return words_; }
    /// Whether what was refused comes in pages, for the first of which the words ask from now on.
    bool beginAfter(const AgentError& refusal);
    /// Takes in the answer to the line. Returns whether there may be another page, for which the words then ask.
    bool goOn(const Message& answer);
    /// The text of the page that was taken in last, as it stands among the others: with the headings once, and without
    /// what it says of the next one.
    std::string textAmongOthers(std::string text) const;

  private:
    bool goOnAfter(const std::string& place);

    std::vector<std::string> words_;
    bool isCollection_ = false; // one that `get` reads in pages
    std::size_t pages_ = 0;     // that were taken in
    bool hasMore_ = false;
};

} // namespace Ctl
