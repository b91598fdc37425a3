#include "text/Words.h"

#include <algorithm>
#include <stdexcept>

namespace Text {

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

bool needsQuotes(const std::string& word) {
    return word.empty() || std::any_of(word.begin(), word.end(), [](char c) {
               return static_cast<unsigned char>(c) <= ' ' || c == '"' || c == '\\' || c == '#';
           });
}

} // namespace

std::vector<std::string> splitWords(std::string_view line) {
    std::vector<std::string> words;
    for (std::size_t at = 0; at < line.size() && line[at] != '#';) {
        if (isBlank(line[at])) {
            ++at;
            continue;
        }
        std::string& word = words.emplace_back();
        bool isQuoted = false;
        for (; at < line.size() && (isQuoted || !isBlank(line[at])); ++at)
            if (line[at] == '"')
                isQuoted = !isQuoted;
            else if (isQuoted && line[at] == '\\' && at + 1 < line.size())
                word += line[++at];
            else
                word += line[at];
        if (isQuoted)
            throw std::invalid_argument("the quote before '" + word + "' has no end");
    }
    return words;
}

std::string joinWords(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) {
        if (!line.empty())
            line += ' ';
        if (!needsQuotes(word)) {
            line += word;
            continue;
        }
        line += '"';
        for (const char c : word) {
            if (c == '"' || c == '\\')
                line += '\\';
            line += c;
        }
        line += '"';
    }
    return line;
}

} // namespace Text
