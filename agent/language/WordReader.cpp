#include "agent/language/WordReader.h"

#include "agent/host/Refusal.h"
#include "text/Nearest.h"
#include "text/Words.h"

#include <algorithm>
#include <charconv>

namespace Agent {

std::string WordReader::word(std::string_view what) {
    if (atEnd())
        refuse(what);
    return words_[next_++];
}

bool WordReader::accept(std::string_view keyword) {
    if (atEnd() || words_[next_] != keyword)
        return false;
    ++next_;
    return true;
}

WordReader& WordReader::expect(std::string_view keyword) {
    if (!accept(keyword))
        refuse("'" + std::string(keyword) + "'");
    return *this;
}

std::size_t WordReader::oneOf(std::string_view what, std::span<const std::string_view> words) {
    const std::string given = atEnd() ? std::string() : words_[next_];
    const auto found = std::ranges::find(words, given);
    if (!atEnd() && found != words.end()) {
        ++next_;
        return static_cast<std::size_t>(found - words.begin());
    }
    const std::string first = Text::joined(words.first(words.size() - 1), ", ");
    refuse(std::string(what) + " (" + first + (first.empty() ? "" : " or ") + std::string(words.back()) + ")",
           Text::suggestion(given, words));
}

std::uint64_t WordReader::number(std::string_view what, std::uint64_t most) {
    const auto value = atEnd() ? std::nullopt : numberIn(words_[next_], most);
    if (!value)
        refuse(std::string(what) + " (a number up to " + std::to_string(most) + ")");
    ++next_;
    return *value;
}

std::optional<std::uint64_t> WordReader::numberIn(std::string_view word, std::uint64_t most) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    const bool isNumber = error == std::errc{} && end == word.data() + word.size() && value <= most;
    return isNumber ? std::optional(value) : std::nullopt;
}

bool WordReader::onOff(std::string_view what) {
    if (accept("on"))
        return true;
    if (!accept("off"))
        refuse(std::string(what) + ", on or off");
    return false;
}

void WordReader::expectEnd() const {
    if (!atEnd())
        refuse("the end of the line");
}

void WordReader::refuse(std::string_view wanted, std::string_view more) const {
    std::string message = "expected " + std::string(wanted);
    if (next_ > 0)
        message += " behind '" + words_[next_ - 1] + "'";
    message += atEnd() ? ", not the end of the line" : ", not '" + words_[next_] + "'";
    message += more;
    throw Refusal(message, {.word = next_ + 1});
}

void WordReader::refuseLast(const std::string& message) const {
    throw Refusal(message, {.word = next_});
}

void WordReader::checkLast(const std::function<void()>& check) const {
    try {
        check();
    } catch (Refusal& refusal) {
        refusal.where().word = next_;
        throw;
    }
}

} // namespace Agent
