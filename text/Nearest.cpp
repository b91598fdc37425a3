#include "text/Nearest.h"

#include <algorithm>
#include <numeric>
#include <utility>
#include <vector>

namespace Text {

std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

std::string_view nearest(std::string_view word, std::span<const std::string_view> known) {
    std::string_view best;
    std::size_t bestDistance = (word.size() + 2) / 3 + 1; // the first that is too far
    for (const std::string_view each : known) {
        const bool isBeginning = !word.empty() && each.starts_with(word);
        if (!isBeginning && each.size() + bestDistance <= word.size())
            continue; // so that a word of any length costs little
        const std::size_t distance = isBeginning ? 1 : editDistance(word, each);
        if (distance < bestDistance) {
            best = each;
            bestDistance = distance;
        }
    }
    return best;
}

std::string suggestion(std::string_view word, std::span<const std::string_view> known) {
    const std::string_view meant = nearest(word, known);
    return meant.empty() ? std::string() : "; did you mean \"" + std::string(meant) + "\"?";
}

} // namespace Text
