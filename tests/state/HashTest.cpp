// The hasher: order, length and seed count, and near keys spread over the pages and slots of a table's index.
#include "state/Hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

namespace {

using namespace std::string_view_literals;
using State::Hasher;

TEST(Hasher, OrderLengthAndSeedCount) {
    const auto text = [](std::string_view bytes) { return Hasher(1).mix(bytes).result(); };
    EXPECT_NE(Hasher(1).mix(2U).mix(3U).result(), Hasher(1).mix(3U).mix(2U).result());
    EXPECT_NE(Hasher(1).mix(2U).result(), Hasher(1).mix(2U).mix(0U).result());
    EXPECT_NE(Hasher(1).mix(2U).result(), Hasher(2).mix(2U).result());
    EXPECT_NE(text("a"), text("a\0"sv));
    EXPECT_NE(text("12345678a"), text("12345678b"));
    EXPECT_NE(text("12345678a"), text("a12345678"));
    EXPECT_EQ(text("12345678a"), text("x12345678a"sv.substr(1)));
    EXPECT_EQ(State::HashOf<std::uint16_t>{}(7, 1), State::HashOf<std::uint64_t>{}(7, 1));
    static_assert(Hasher(1).mix(true).result() == Hasher(1).mix(std::uint64_t{1}).result());
}

// 65,536 near keys in 1,024 cells of 64 on average, by the upper and by the lower bits of their hash: with a
// good hash a cell holds 64 +- 8 (standard deviation), so that more than 120 or fewer than 20 are out of the
// question.
TEST(Hasher, NearKeysSpread) {
    for (const unsigned step : {0U, 8U, 16U, 32U, 40U, 48U}) {
        for (const std::uint32_t seed : {0U, 1U, 0xffffffffU}) {
            std::array<unsigned, 1024> upper{};
            std::array<unsigned, 1024> lower{};
            for (std::uint64_t number = 0; number < 65536; ++number) {
                const std::uint32_t hash = Hasher(seed).mix(number << step).result();
                ++upper[hash >> 22];
                ++lower[hash & 1023];
            }
            for (const auto* cells : {&upper, &lower}) {
                const auto [least, most] = std::minmax_element(cells->begin(), cells->end());
                EXPECT_GT(*least, 20U) << "step " << step << " seed " << seed;
                EXPECT_LT(*most, 120U) << "step " << step << " seed " << seed;
            }
        }
    }
}

} // namespace
