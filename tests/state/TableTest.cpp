// The hashed container: what its model test (TableModelTest.cpp) cannot see.
#include "state/Table.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace {

struct Itself {
    const std::uint32_t& operator()(const std::uint32_t& number) const { return number; }
};
using Numbers = State::Table<std::uint32_t, Itself>;

void add(Numbers& numbers, std::uint32_t from, std::uint32_t to) {
    for (std::uint32_t number = from; number < to; ++number)
        ASSERT_TRUE(numbers.insert(std::uint32_t{number}).second);
}

TEST(Table, MemoryIsThatOfTheMembersHoweverManyCameAndWent) {
    Numbers numbers(1);
    add(numbers, 0, 1);
    EXPECT_LE(numbers.memoryBytes(), 64U);
    add(numbers, 1, 100000);
    const std::size_t full = numbers.memoryBytes();
    EXPECT_LE(full, 100000U * 16);
    for (std::uint32_t number = 0; number < 300000; ++number) { // first in, first out
        numbers.erase(number);
        add(numbers, 100000 + number, 100001 + number);
    }
    EXPECT_LE(numbers.memoryBytes(), full + full / 4);
    for (std::uint32_t number = 300000; number < 400000; ++number) // every 100th stays
        if (number % 100 != 0)
            numbers.erase(number);
    EXPECT_LE(numbers.memoryBytes(), 1000U * 64);
    for (std::uint32_t number = 300000; number < 399600; number += 100)
        numbers.erase(number);
    EXPECT_LE(numbers.memoryBytes(), 128U); // four need no index
    for ([[maybe_unused]] const std::uint32_t& number : numbers.walk())
        numbers.clear();
    EXPECT_EQ(numbers.memoryBytes(), 0U);
}

TEST(Table, PlacesRunOut) {
    State::TableIndex index(1);
    State::TableSegment* segment = State::TableSegment::make(1, 4, false);
    for (unsigned count = 1; count < 1U << 18; ++count) {
        index.reserveId();
        index.takeId(segment);
    }
    EXPECT_THROW(index.reserveId(), std::length_error);
    index.returnId(17);
    index.reserveId();
    index.takeId(segment);
    EXPECT_EQ(segment->id, 17U);
    EXPECT_THROW(index.reserveId(), std::length_error);
    State::TableSegment::free(segment);
}

// A value whose end removes another member and walks the table.
struct Chained {
    struct KeyOf {
        const std::uint32_t& operator()(const Chained& entry) const { return entry.key; }
    };
    using Chain = State::Table<Chained, KeyOf>;

    Chained(std::uint32_t number, Chain* in)
        : key(number)
        , chain(in) {}
    Chained(Chained&& other) noexcept
        : key(other.key)
        , chain(std::exchange(other.chain, nullptr)) {}
    ~Chained() {
        if (chain != nullptr) {
            chain->erase(key + 1);
            for (const Chained& entry : chain->walk())
                chain->erase(entry.key + 7);
        }
    }
    std::uint32_t key;
    Chain* chain;
};

TEST(Table, DestructorsMayUseTheTable) {
    const auto fill = [](Chained::Chain& chain) {
        for (std::uint32_t key = 0; key < 600; ++key)
            chain.insert({key, &chain});
    };
    Chained::Chain chain(1);
    fill(chain);
    chain.erase(0);
    EXPECT_TRUE(chain.empty());
    fill(chain);
    for (const Chained& entry : chain.walk()) {
        chain.erase(entry.key);
        break;
    }
    EXPECT_TRUE(chain.empty());
    fill(chain);
    chain.clear();
    EXPECT_TRUE(chain.empty());
    fill(chain); // and the table's own end
}

// Apart: g++ 12 sees an index in use where a new table has none, and a table that has ended.
[[gnu::noinline]] void insertWhileInserting(Numbers& numbers) {
    numbers.findOrInsert(1, [&] { return *numbers.insert(2).first; });
}
[[gnu::noinline]] void end(std::unique_ptr<Numbers>& numbers) {
    numbers.reset();
}

TEST(TableDeathTest, MisuseEndsTheProcess) {
    Numbers misused(1);
    EXPECT_DEATH(insertWhileInserting(misused), "makeEntry left the table alone");
    EXPECT_DEATH(
        {
            auto numbers = std::make_unique<Numbers>(1);
            numbers->insert(1);
            for ([[maybe_unused]] const std::uint32_t& number : numbers->walk())
                end(numbers);
        },
        "a table outlives its walks");
}

} // namespace
