// The hashed container without memory: each allocation of an insertion fails in turn, and all of a removal.
#include "state/Table.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <utility>

namespace {

constexpr auto unlimited = std::numeric_limits<std::size_t>::max();
std::size_t allocationsLeft = unlimited; // those behind fail
unsigned failures = 0;

void* allocate(std::size_t size) {
    if (allocationsLeft == 0) {
        ++failures;
        return nullptr;
    }
    allocationsLeft -= allocationsLeft == unlimited ? 0 : 1;
    return std::malloc(size == 0 ? 1 : size);
}

} // namespace

// The program's own allocation functions; not inlined, or g++ takes them for mismatched.
void* operator new(std::size_t size) {
    void* memory = allocate(size);
    return memory == nullptr ? throw std::bad_alloc() : memory;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}

namespace {

using Value = std::unique_ptr<std::uint32_t>;
using Entry = State::MapEntry<std::uint32_t, Value>;
struct KeyOf {
    const std::uint32_t& operator()(const Entry& entry) const { return entry.key; }
};
using Map = State::Table<Entry, KeyOf>;

constexpr std::uint32_t members = 3000;

// The members are `from` to `to` less one, in this order.
void expectMembers(const Map& map, std::uint32_t from, std::uint32_t to) {
    ASSERT_EQ(map.size(), to - from);
    std::uint32_t key = from;
    for (const Entry& entry : map.walk()) {
        ASSERT_EQ(entry.key, key);
        ASSERT_EQ(*entry.value, key);
        ASSERT_EQ(map.find(key), &entry);
        ++key;
    }
}

TEST(TableWithoutMemory, FailedInsertionChangesNothing) {
    Map map(1);
    failures = 0;
    for (std::uint32_t key = 0; key < members; ++key) {
        Value value = std::make_unique<std::uint32_t>(key);
        for (std::size_t allocations = 0; value != nullptr; ++allocations) {
            bool failed = false;
            allocationsLeft = allocations;
            try {
                map.findOrInsert(key, [&] { return Entry{key, std::move(value)}; });
            } catch (const std::bad_alloc&) {
                failed = true;
            }
            allocationsLeft = unlimited;
            if (failed) {
                ASSERT_NE(value, nullptr);
                ASSERT_EQ(map.find(key), nullptr);
                expectMembers(map, 0, key);
            }
        }
    }
    expectMembers(map, 0, members);
    EXPECT_GT(failures, 20U);
}

TEST(TableWithoutMemory, FailedMakeEntryChangesNothing) {
    Map map(1);
    for (std::uint32_t key = 0; key < members; ++key) {
        ASSERT_THROW(map.findOrInsert(key, []() -> Entry { throw std::bad_alloc(); }), std::bad_alloc);
        ASSERT_EQ(map.find(key), nullptr);
        map.insert({key, std::make_unique<std::uint32_t>(key)});
    }
    expectMembers(map, 0, members);
}

TEST(TableWithoutMemory, RemovingSucceeds) {
    Map map(1);
    for (std::uint32_t key = 0; key < members; ++key)
        map.insert({key, std::make_unique<std::uint32_t>(key)});
    failures = 0;
    std::uint32_t from = 0;
    for (; from < members - 1; ++from) {
        allocationsLeft = 0;
        const bool erased = map.erase(from);
        allocationsLeft = unlimited;
        ASSERT_TRUE(erased);
    }
    EXPECT_GT(failures, 20U);
    expectMembers(map, from, members);
    map.erase(from);
    EXPECT_EQ(map.memoryBytes(), 0U);
}

} // namespace
