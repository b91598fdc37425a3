// Which of the words that are known somebody meant who wrote one that is not.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace Text {

/// Fewest insertions, removals and replacements of bytes that turn one text into the other (Wagner, Fischer 1974).
std::size_t editDistance(std::string_view a, std::string_view b);
/// The nearest of the known words; empty when none is near enough to have been meant.
std::string_view nearest(std::string_view word, std::span<const std::string_view> known);
/// "; did you mean \"vrf\"?", or nothing.
std::string suggestion(std::string_view word, std::span<const std::string_view> known);

} // namespace Text
