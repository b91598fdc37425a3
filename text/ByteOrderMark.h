// The byte order mark that some editors put in front of a UTF-8 file: no part of what the file says.
#pragma once

#include <string_view>

namespace Text {

/// What begins a file, without the mark where there is one.
inline std::string_view withoutMark(std::string_view text) {
    constexpr std::string_view mark = "\xef\xbb\xbf";
    return text.starts_with(mark) ? text.substr(mark.size()) : text;
}

} // namespace Text
