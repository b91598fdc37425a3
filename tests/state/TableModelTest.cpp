// The hashed container against a simple model: random changes within nested walks, some of them short of memory.
#include "state/Hash.h"
#include "state/Table.h"
#include "tests/TestSeed.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <unordered_map>
#include <utility>

namespace {

constexpr auto unlimited = std::numeric_limits<std::size_t>::max();
std::size_t allocationsLeft = unlimited; // those behind fail
std::size_t failures = 0;

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

// Keys under a good hash, and under hashes that hardly tell them apart in the bits outside the mask.
template <std::uint32_t mask = ~0U>
struct Key {
    std::uint32_t number;
    std::uint32_t hash(std::uint32_t seed) const { return State::Hasher(seed).mix(number).result() & mask; }
    bool operator==(const Key&) const = default;
};

// Those that are there, and were not moved from, share the model's token.
struct Value {
    std::uint32_t number;
    std::shared_ptr<const int> token;
};

template <class K>
struct KeyOf {
    const K& operator()(const State::MapEntry<K, Value>& entry) const { return entry.key; }
};
template <class K>
using TableOf = State::Table<State::MapEntry<K, Value>, KeyOf<K>>;

struct Thrown {};

// While one lives, so many allocations succeed and those behind fail.
struct Allocations {
    explicit Allocations(std::size_t left) { allocationsLeft = left; }
    Allocations(const Allocations&) = delete;
    Allocations& operator=(const Allocations&) = delete;
    ~Allocations() { allocationsLeft = unlimited; }
};

// A table beside a model of it: members by serial number, so that the model's order is that of insertion.
template <class K>
class Model {
  public:
    Model(std::uint32_t seed, std::uint32_t keys, bool isShort)
        : random_(seed)
        , table_(seed)
        , keys_(keys)
        , isShort_(isShort) {}

    // One outermost walk, with what its body does.
    void round() {
        if (oneIn(40))
            table_ = table_.clone();
        try {
            walk();
        } catch (const Thrown&) {
        }
        walksOpen_ = 0;
        removed_ = 0;
        ASSERT_EQ(alive(), members_.size()) << "the outermost walk destroys what was removed";
    }
    // Adds or removes until there are about `members`.
    void fillTo(std::size_t members) {
        while (members_.size() < members && !testing::Test::HasFailure())
            add();
        while (members_.size() > members && !testing::Test::HasFailure())
            remove(K{below(keys_)});
    }
    void check() {
        ASSERT_EQ(table_.size(), members_.size());
        auto expected = members_.begin();
        for (const auto& entry : std::as_const(table_).walk()) {
            ASSERT_EQ(entry.key.number, expected->second.key);
            ASSERT_EQ(entry.value.number, expected->second.value);
            ASSERT_EQ(table_.find(entry.key), &entry);
            ++expected;
        }
        ASSERT_EQ(table_.find(K{keys_}), nullptr);
        const std::size_t entries = table_.size() * sizeof(Entry);
        ASSERT_TRUE(isShort_ || table_.memoryBytes() <= (table_.empty() ? 0 : 3 * entries + 8192));
    }

  private:
    using Entry = State::MapEntry<K, Value>;
    struct Member {
        std::uint32_t key;
        std::uint32_t value;
    };

    std::size_t alive() const { return static_cast<std::size_t>(token_.use_count()) - 1; }
    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }
    bool oneIn(std::uint32_t n) { return below(n) == 0; }
    Allocations someAllocations(std::uint32_t limit) {
        return Allocations(isShort_ && oneIn(4) ? below(limit) : unlimited);
    }

    void walk() {
        ++walksOpen_;
        std::uint64_t last = 0;
        const std::uint64_t newest = nextSerial_ - 1;
        const K after{below(keys_)};
        const auto start = serials_.find(after.number);
        const bool behind = oneIn(3);
        if (behind && start != serials_.end())
            last = start->second;
        std::uint32_t visits = 1 + below(oneIn(4) ? keys_ : 40);
        for (auto& entry : behind ? table_.walkAfter(after) : table_.walk()) {
            const auto next = members_.upper_bound(last);
            ASSERT_TRUE(next != members_.end() && next->first <= newest);
            ASSERT_EQ(entry.key.number, next->second.key);
            ASSERT_EQ(entry.value.number, next->second.value);
            last = next->first;
            if (oneIn(3))
                change(entry.key);
            if (--visits == 0) {
                if (oneIn(8))
                    throw Thrown{};
                --walksOpen_;
                return;
            }
        }
        --walksOpen_;
        const auto rest = members_.upper_bound(last);
        ASSERT_TRUE(rest == members_.end() || rest->first > newest);
    }

    void change(const K& current) {
        const std::uint32_t number = current.number;
        for (std::uint32_t count = 1 + below(3); count > 0; --count) {
            switch (below(oneIn(30 + keys_ / 10) ? 6 : 5)) {
            case 0:
                remove(current);
                ASSERT_EQ(current.number, number) << "the key stays until the walk closes";
                break;
            case 1:
                remove(K{below(keys_)});
                break;
            case 2:
            case 3:
                add();
                break;
            case 4:
                if (walksOpen_ <= 3)
                    walk();
                break;
            default:
                table_.clear();
                removed_ += members_.size();
                members_.clear();
                serials_.clear();
            }
        }
    }

    // Adding moves nothing, and changes nothing where it fails.
    void add() {
        const K key{below(keys_)};
        const K witness{below(keys_)};
        const Entry* place = table_.find(witness);
        const bool isThere = serials_.contains(key.number);
        const std::uint32_t value = below(1000);
        Entry made{key, {value, token_}};
        try {
            const auto [entry, inserted] = [&, limited = someAllocations(3)] {
                return table_.findOrInsert(key, [&]() -> Entry&& {
                    return isShort_ && oneIn(20) ? throw std::bad_alloc() : std::move(made);
                });
            }();
            ASSERT_EQ(inserted, !isThere);
            if (inserted) {
                serials_[key.number] = nextSerial_;
                members_[nextSerial_++] = {key.number, value};
            } else {
                entry->value = std::move(made.value);
                members_[serials_[key.number]].value = value;
            }
        } catch (const std::bad_alloc&) {
            ASSERT_NE(made.value.token, nullptr);
            ASSERT_EQ(table_.find(key), nullptr);
        }
        ASSERT_TRUE(witness == key || table_.find(witness) == place);
    }

    // Removing succeeds without memory. Under a walk it moves nothing and only marks.
    void remove(const K& key) {
        const K witness{below(keys_)};
        const Entry* place = table_.find(witness);
        const auto serial = serials_.find(key.number);
        const bool isErased = oneIn(2);
        bool isRight = true;
        const auto take = [&](Entry&& entry) {
            isRight = Value(std::move(entry.value)).number == members_[serial->second].value &&
                      table_.size() + 1 == members_.size();
        };
        const bool there = [&, limited = someAllocations(1)] {
            return isErased ? table_.erase(key) : table_.extract(key, take);
        }();
        ASSERT_EQ(there, serial != serials_.end());
        ASSERT_TRUE(isRight);
        if (there) {
            removed_ += isErased && walksOpen_ != 0 ? 1 : 0;
            members_.erase(serial->second);
            serials_.erase(serial);
        }
        ASSERT_EQ(alive(), members_.size() + removed_);
        ASSERT_TRUE(walksOpen_ == 0 || witness == key || table_.find(witness) == place);
    }

    std::shared_ptr<const int> token_ = std::make_shared<int>(); // one for each value, and this
    std::mt19937 random_;
    TableOf<K> table_;
    std::uint32_t keys_;
    bool isShort_;
    std::map<std::uint64_t, Member> members_;
    std::unordered_map<std::uint32_t, std::uint64_t> serials_;
    std::uint64_t nextSerial_ = 1;
    unsigned walksOpen_ = 0;
    std::size_t removed_ = 0; // marked, and still alive
};

template <class K>
void holdAgainstModel(std::uint32_t keys, unsigned rounds, unsigned checkEvery) {
    const std::uint32_t seed = testSeed();
    SCOPED_TRACE(seedText(seed));
    for (const bool isShort : {false, true}) { // of memory
        failures = 0;
        Model<K> model(seed, keys, isShort);
        std::mt19937 random(seed);
        for (unsigned round = 1; round <= rounds && !testing::Test::HasFailure(); ++round) {
            if (round % 50 == 1)
                model.fillTo(random() % keys);
            model.round();
            if (round % checkEvery == 0)
                model.check();
        }
        EXPECT_EQ(failures > 0, isShort);
    }
}

TEST(TableModel, IsHeldByFewAndManyMembers) {
    holdAgainstModel<Key<>>(12, 8000, 1);
    holdAgainstModel<Key<>>(300, 3000, 5);
    holdAgainstModel<Key<>>(20000, 1000, 50);
}
TEST(TableModel, IsHeldWhereHashesAgree) {
    holdAgainstModel<Key<0xffc00000>>(3000, 500, 20); // in their lower bits
    holdAgainstModel<Key<0x000003ff>>(3000, 500, 20); // in their upper bits
    holdAgainstModel<Key<0>>(2000, 100, 20);
}

} // namespace
