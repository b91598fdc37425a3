#include "agent/ScenarioWords.h"

#include "agent/JsonRpc.h"
#include "agent/OperationError.h"

#include <charconv>

namespace Agent {

std::vector<std::string> splitWords(std::string_view line) {
    std::vector<std::string> words;
    std::size_t at = 0;
    while (at < line.size() && line[at] != '#') {
        if (line[at] == ' ' || line[at] == '\t' || line[at] == '\r') {
            ++at;
            continue;
        }
        std::string& word = words.emplace_back();
        bool quoted = false;
        for (; at < line.size() && (quoted || (line[at] != ' ' && line[at] != '\t' && line[at] != '\r'));
             ++at)
            if (line[at] == '"')
                quoted = !quoted;
            else if (quoted && line[at] == '\\' && at + 1 < line.size())
                word += line[++at];
            else
                word += line[at];
        if (quoted)
            throw OperationError(RpcCode::invalidParams, "the quote before '" + word + "' has no end");
    }
    return words;
}

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

void WordReader::expect(std::string_view keyword) {
    if (!accept(keyword))
        refuse("'" + std::string(keyword) + "'");
}

std::uint64_t WordReader::number(std::string_view what, std::uint64_t most) {
    const std::string text = atEnd() ? std::string() : words_[next_];
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size() || value > most)
        refuse(std::string(what) + " (a number up to " + std::to_string(most) + ")");
    ++next_;
    return value;
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

void WordReader::refuse(std::string_view wanted) const {
    std::string message = "expected " + std::string(wanted);
    if (next_ > 0)
        message += " behind '" + words_[next_ - 1] + "'";
    message += atEnd() ? ", not the end of the line" : ", not '" + words_[next_] + "'";
    throw OperationError(RpcCode::invalidParams, message);
}

} // namespace Agent
