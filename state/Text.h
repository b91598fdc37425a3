// The plain text of a value, as messages carry it: strings unquoted, numbers in decimal, bool as true or
// false. A type with a text form of its own offers `void appendText(std::string& out, const T& value)` in its
// namespace; types described for state/Value.h need none. Used by state/TraceValue.h.
#pragma once

#include <charconv>
#include <concepts>
#include <limits>
#include <string>
#include <string_view>

namespace State {

inline void appendText(std::string& out, std::string_view text) {
    out += text;
}

inline void appendText(std::string& out, const char* text) {
    out += text == nullptr ? "(null)" : text;
}

template <std::integral T>
void appendText(std::string& out, T value) {
    if constexpr (std::same_as<T, bool>) {
        out += value ? "true" : "false";
    } else if constexpr (std::same_as<T, char>) {
        out += value;
    } else {
        char digits[std::numeric_limits<T>::digits10 + 3];
        out.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
    }
}

} // namespace State
