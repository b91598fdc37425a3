// The hashed container against a simple model: random changes within nested walks.
#include "state/Hash.h"
#include "state/Table.h"
#include "tests/TestSeed.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

// Keys under a good hash, and under hashes that hardly tell them apart in their lower or upper bits, or at
// all.
struct Key {
    std::uint32_t number;
    std::uint32_t hash(std::uint32_t seed) const { return State::Hasher(seed).mix(number).result(); }
    bool operator==(const Key&) const = default;
};
template <std::uint32_t mask>
struct PoorKey {
    std::uint32_t number;
    std::uint32_t hash(std::uint32_t seed) const { return Key{number}.hash(seed) & mask; }
    bool operator==(const PoorKey&) const = default;
};

// A move-only value: an address sanitizer sees each one that is lost, or destroyed twice.
using Value = std::unique_ptr<std::uint32_t>;

template <class K>
struct KeyOf {
    const K& operator()(const State::MapEntry<K, Value>& entry) const { return entry.key; }
};
template <class K>
using TableOf = State::Table<State::MapEntry<K, Value>, KeyOf<K>>;

struct Thrown {};

// A table beside a model of it: members by serial number, so that the model's order is that of insertion.
template <class K>
class Model {
  public:
    Model(std::uint32_t seed, std::uint32_t keys)
        : random_(seed)
        , table_(seed)
        , keys_(keys) {}

    // One outermost walk, with what its body does.
    void round() {
        try {
            walk(0);
        } catch (const Thrown&) {
        }
    }
    // Adds or removes until there are about `members`.
    void fillTo(std::size_t members) {
        while (members_.size() < members)
            add();
        while (members_.size() > members)
            remove(K{below(keys_)});
    }
    void check() {
        ASSERT_EQ(table_.size(), members_.size());
        auto expected = members_.begin();
        for (const auto& entry : std::as_const(table_).walk()) {
            ASSERT_EQ(entry.key.number, expected->second.key);
            ASSERT_EQ(*entry.value, expected->second.value);
            ASSERT_EQ(table_.find(entry.key), &entry);
            ++expected;
        }
        ASSERT_EQ(table_.find(K{keys_}), nullptr);
        const std::size_t entries = table_.size() * sizeof(State::MapEntry<K, Value>);
        ASSERT_LE(table_.memoryBytes(), table_.empty() ? 0 : 3 * entries + 8192);
    }

  private:
    struct Member {
        std::uint32_t key;
        std::uint32_t value;
    };

    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }
    bool oneIn(std::uint32_t n) { return below(n) == 0; }

    void walk(unsigned depth) {
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
            ASSERT_EQ(*entry.value, next->second.value);
            last = next->first;
            if (oneIn(3))
                change(entry.key, depth);
            if (--visits == 0) {
                if (oneIn(8))
                    throw Thrown{};
                return;
            }
        }
        const auto rest = members_.upper_bound(last);
        ASSERT_TRUE(rest == members_.end() || rest->first > newest);
    }

    void change(const K& current, unsigned depth) {
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
                if (depth < 3)
                    walk(depth + 1);
                break;
            default:
                table_.clear();
                members_.clear();
                serials_.clear();
            }
        }
    }

    void add() {
        const K key{below(keys_)};
        const std::uint32_t value = below(1000);
        const auto [entry, inserted] = table_.insert({key, std::make_unique<std::uint32_t>(value)});
        ASSERT_EQ(inserted, !serials_.contains(key.number));
        if (inserted) {
            serials_[key.number] = nextSerial_;
            members_[nextSerial_++] = {key.number, value};
        } else {
            entry->value = std::make_unique<std::uint32_t>(value);
            members_[serials_[key.number]].value = value;
        }
    }

    void remove(const K& key) {
        const auto serial = serials_.find(key.number);
        Value taken;
        const bool there = oneIn(2)
                               ? table_.erase(key)
                               : table_.extract(key, [&](auto&& entry) { taken = std::move(entry.value); });
        ASSERT_EQ(there, serial != serials_.end());
        if (there) {
            ASSERT_TRUE(taken == nullptr || *taken == members_[serial->second].value);
            members_.erase(serial->second);
            serials_.erase(serial);
        }
    }

    std::mt19937 random_;
    TableOf<K> table_;
    std::uint32_t keys_;
    std::map<std::uint64_t, Member> members_;
    std::unordered_map<std::uint32_t, std::uint64_t> serials_;
    std::uint64_t nextSerial_ = 1;
};

template <class K>
void holdAgainstModel(std::uint32_t keys, unsigned rounds, unsigned checkEvery) {
    const std::uint32_t seed = testSeed();
    SCOPED_TRACE(seedText(seed));
    Model<K> model(seed, keys);
    std::mt19937 random(seed);
    for (unsigned round = 1; round <= rounds && !testing::Test::HasFailure(); ++round) {
        if (round % 50 == 1)
            model.fillTo(random() % keys);
        model.round();
        if (round % checkEvery == 0)
            model.check();
    }
}

TEST(TableModel, FewMembers) {
    holdAgainstModel<Key>(12, 8000, 1);
}
TEST(TableModel, SomeMembers) {
    holdAgainstModel<Key>(300, 3000, 5);
}
TEST(TableModel, ManyMembers) {
    holdAgainstModel<Key>(20000, 1000, 50);
}
TEST(TableModel, LowerHashBitsAgree) {
    holdAgainstModel<PoorKey<0xffc00000>>(3000, 500, 20);
}
TEST(TableModel, UpperHashBitsAgree) {
    holdAgainstModel<PoorKey<0x000003ff>>(3000, 500, 20);
}
TEST(TableModel, HashesAgree) {
    holdAgainstModel<PoorKey<0>>(2000, 100, 20);
}

} // namespace
