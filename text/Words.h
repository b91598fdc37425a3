// A line of the grammar as words, and words as a line. Words are separated by blanks; what stands in double quotes
// may hold blanks, with \" and \\ for a quote and a backslash; # begins a comment.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Text {

/// The words of a line; none for a blank or comment line. @throws std::invalid_argument for an unfinished quote.
std::vector<std::string> splitWords(std::string_view line);
/// The line that splitWords takes apart into these words.
std::string joinWords(const std::vector<std::string>& words);

} // namespace Text
