// Sets that are values: several of them, copied to and fro, held against a plain model through every size.
#include "state/ValueSet.h"

#include "tests/TestSeed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <vector>

namespace {

struct Number {
    std::uint32_t value;
    std::uint32_t hash(std::uint32_t seed) const { return State::Hasher(seed).mix(value).result(); }
    auto operator<=>(const Number&) const = default;
};
using Set = State::ValueSet<Number, 17>;
using Model = std::vector<Number>; // in order of insertion

Model elementsOf(const Set& set) {
    return set.elements();
}

// A body may change the very set it walks; it goes on over what was there.
void expectWalkHolds(Set& set, const Model& model) {
    Model seen;
    set.visit([&](const Number& number) {
        set.erase(Number(number));
        set.insert({1000});
        seen.push_back(number);
        return seen.size() < 30;
    });
    ASSERT_EQ(seen, Model(model.begin(), model.begin() + std::min<long>(30, std::ssize(model))));
}

TEST(ValueSet, BehavesAsAListWithoutDuplicatesThatIsCopied) {
    const std::uint32_t seed = testSeed();
    SCOPED_TRACE(seedText(seed));
    std::mt19937 random(seed);
    const auto pick = [&](unsigned below) { return std::uniform_int_distribution(0U, below - 1)(random); };

    std::array<Set, 4> sets;
    std::array<Model, 4> models;
    for (int step = 0; step < 20000; ++step) {
        const unsigned at = pick(4);
        const unsigned from = pick(4);
        const Number number{pick(step % 4000 < 2000 ? 12 : 60)};
        const auto place = std::find(models[at].begin(), models[at].end(), number);
        const bool isThere = place != models[at].end();
        switch (pick(12)) {
        case 0:
            sets[at] = sets[from];
            models[at] = Model(models[from]);
            break;
        case 1:
            std::swap(sets[at], sets[from]);
            std::swap(models[at], models[from]);
            break;
        case 2:
            if (pick(20) == 0) {
                sets[at].clear();
                models[at].clear();
            } else if (pick(20) == 0) {
                Set copy = sets[at];
                expectWalkHolds(copy, models[at]);
            }
            break;
        case 3:
        case 4:
        case 5:
        case 6:
            ASSERT_EQ(sets[at].erase(number), isThere);
            if (isThere)
                models[at].erase(place);
            break;
        default:
            ASSERT_EQ(sets[at].insert(number), !isThere);
            if (!isThere)
                models[at].push_back(number);
        }
        for (std::size_t i = 0; i < sets.size(); ++i) { // all of them: a copy must not have changed
            ASSERT_EQ(elementsOf(sets[i]), models[i]) << "step " << step;
            ASSERT_EQ(sets[i].size(), models[i].size());
            ASSERT_EQ(sets[i].empty(), models[i].empty());
        }
        ASSERT_EQ(sets[at].has(number), std::count(models[at].begin(), models[at].end(), number) == 1);
        Model mine = models[at];
        Model theirs = models[from];
        std::sort(mine.begin(), mine.end());
        std::sort(theirs.begin(), theirs.end());
        ASSERT_EQ(sets[at] == sets[from], mine == theirs);
        ASSERT_EQ(sets[at] <=> sets[from], mine <=> theirs);
        ASSERT_TRUE(mine != theirs || sets[at].hash(3) == sets[from].hash(3));
    }
}

TEST(ValueSet, ACopySharesTheElementsUntilOneSideChanges) {
    Set set;
    for (std::uint32_t i = 0; i < 1000; ++i)
        set.insert({i});
    const Set copy = set;
    EXPECT_EQ(copy.memoryBytes(), set.memoryBytes());
    set.erase({500});
    EXPECT_TRUE(copy.has({500}) && !set.has({500}));
    EXPECT_NE(copy.hash(0), set.hash(0));
    EXPECT_NE(copy.hash(0), copy.hash(1));
}

} // namespace
