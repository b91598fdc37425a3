// A line of the grammar as words, and words as a line. Words are separated by blanks; what stands in double quotes
// may hold blanks, with \" and \\ for a quote and a backslash; # begins a comment.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Text {

/// The words of a line; none for a blank or comment line. @throws std::invalid_argument for an unfinished quote.
std::vector<std::string> splitWords(std::string_view line);
/// The line that splitWords takes apart into these words.
std::string joinWords(const std::vector<std::string>& words);

/// One text of each, a member such as its name.
template <class Range, class Member>
std::vector<std::string_view> namesOf(const Range& range, Member member) {
    std::vector<std::string_view> names;
    names.reserve(std::size(range));
    for (const auto& each : range)
        names.emplace_back(std::invoke(member, each));
    return names;
}
/// Texts one behind the other, with the separator between them.
template <class Texts>
std::string joined(const Texts& texts, std::string_view separator) {
    std::string all;
    bool isFirst = true;
    for (const auto& text : texts) {
        if (!std::exchange(isFirst, false))
            all += separator;
        all += std::string_view(text);
    }
    return all;
}

} // namespace Text
