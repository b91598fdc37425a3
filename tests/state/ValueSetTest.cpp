// Sets that are values, of every size.
#include "state/ValueSet.h"

#include "tests/SetModel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

struct Number {
    std::uint32_t value;
    std::uint32_t hash(std::uint32_t seed) const { return State::Hasher(seed).mix(value).result(); }
    auto operator<=>(const Number&) const = default;
};
using Set = State::ValueSet<Number, 17>;

TEST(ValueSet, BehavesAsAListWithoutDuplicatesThatIsCopied) {
    SetModel<Set, Number>([](unsigned number) { return Number{number}; }, false, true).holdAgainstModel();
}

TEST(ValueSet, ACopySharesTheElementsUntilOneSideChanges) {
    Set set;
    for (const std::uint32_t count : {2U, 16U, 1000U}) {
        for (std::uint32_t i = 0; i < count; ++i)
            set.insert({i});
        const Set copy = set;
        EXPECT_EQ(copy.memoryBytes(), set.memoryBytes());
        set.erase({1});
        EXPECT_TRUE(copy.has({1}) && !set.has({1}));
        EXPECT_NE(copy.hash(0), set.hash(0));
        EXPECT_NE(copy.hash(0), copy.hash(1));

        // A body may change the very set it walks; it goes on over what was there, as far as it wants.
        std::vector<Number> expected = set.elements();
        expected.resize(std::min<std::size_t>(expected.size(), 500));
        std::vector<Number> seen;
        set.visit([&](const Number& number) {
            set.erase(Number(number));
            set.insert({5000});
            seen.push_back(number);
            return seen.size() < 500;
        });
        EXPECT_EQ(seen, expected);
        set = copy;
    }
}

} // namespace
