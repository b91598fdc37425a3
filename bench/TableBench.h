// The hashed container under every collection beside a good flat map and the standard container, the three in
// turn: what an operation takes, the bytes a member takes, and the longest single insertion. Included by
// bench/StateBench.cpp.
#pragma once

#include "bench/Report.h"
#include "state/Hash.h"
#include "state/Table.h"

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <tsl/robin_map.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <unordered_map>
#include <vector>

namespace TableBench {

struct Key {
    std::uint32_t vrfId;
    std::uint32_t source;
    std::uint32_t group;
    std::uint32_t hash(std::uint32_t seed) const {
        return State::Hasher(seed).mix(std::uint64_t{source} << 32 | group).mix(vrfId).result();
    }
    bool operator==(const Key&) const = default;
};
struct Value {
    std::uint32_t number;
    std::uint32_t other;
};
struct HashOfKey {
    std::size_t operator()(const Key& key) const { return key.hash(1); }
};

// The three under one interface.
class Ours {
  public:
    void insert(const Key& key, Value value) {
        table_.findOrInsert(key, [&] { return Entry{key, value}; });
    }
    void erase(const Key& key) { table_.erase(key); }
    std::uint32_t find(const Key& key) const {
        const Entry* entry = table_.find(key);
        return entry == nullptr ? 0 : entry->value.number;
    }
    std::uint32_t sum() const {
        std::uint32_t sum = 0;
        for (const Entry& entry : table_.walk())
            sum += entry.value.number;
        return sum;
    }

  private:
    using Entry = State::MapEntry<Key, Value>;
    struct KeyOf {
        const Key& operator()(const Entry& entry) const { return entry.key; }
    };
    State::Table<Entry, KeyOf> table_{1};
};

template <class Map>
class Other {
  public:
    void insert(const Key& key, Value value) { map_.emplace(key, value); }
    void erase(const Key& key) { map_.erase(key); }
    std::uint32_t find(const Key& key) const {
        const auto found = map_.find(key);
        return found == map_.end() ? 0 : found->second.number;
    }
    std::uint32_t sum() const {
        std::uint32_t sum = 0;
        for (const auto& entry : map_)
            sum += entry.second.number;
        return sum;
    }

  private:
    Map map_;
};
using Flat = Other<tsl::robin_map<Key, Value, HashOfKey>>;
using Standard = Other<std::unordered_map<Key, Value, HashOfKey>>;

// ---- what is measured; run() yields nanoseconds an operation, or bytes a member

using Keys = std::vector<Key>;

// `count` keys in random order, different ones for different parts.
inline Keys someKeys(std::size_t count, std::uint32_t part) {
    Keys keys;
    for (std::uint32_t number = 0; number < count; ++number)
        keys.push_back({part, 0x0a000000 + number / 64, 0xef000000 + number % 64});
    std::shuffle(keys.begin(), keys.end(), std::mt19937(part));
    return keys;
}

template <class Map>
void fill(Map& map, const Keys& keys) {
    std::uint32_t number = 0;
    for (const Key& key : keys)
        map.insert(key, {++number, 0});
    benchmark::DoNotOptimize(map);
}

// Nanoseconds for each of `count`, of work that the compiler may not move out of the measured time.
template <class Body>
double timeEach(std::size_t count, Body body) {
    return Bench::timeEach(count, [&] {
        benchmark::ClobberMemory();
        body();
        benchmark::ClobberMemory();
    });
}

// Looks each of as many keys up, in another order, and goes round until it has looked up some thousands;
// `present` says whether they are there.
template <std::size_t members, bool present>
struct Find {
    template <class Map>
    class In {
      public:
        In() { fill(map_, someKeys(members, 1)); }
        double run() const {
            constexpr std::size_t rounds = (10'000 + members) / members;
            return timeEach(rounds * members, [&] {
                for (std::size_t round = 0; round < rounds; ++round)
                    for (const Key& key : keys_)
                        benchmark::DoNotOptimize(map_.find(key));
            });
        }

      private:
        Map map_;
        Keys keys_ = [] {
            Keys keys = someKeys(members, present ? 1 : 2);
            std::shuffle(keys.begin(), keys.end(), std::mt19937(3));
            return keys;
        }();
    };
};

// Walks several maps of this size in turn: the processor would learn one by heart.
template <std::size_t members>
struct Iterate {
    template <class Map>
    class In {
      public:
        In() {
            std::uint32_t part = 0;
            for (Map& map : maps_)
                fill(map, someKeys(members, ++part));
        }
        double run() const {
            return timeEach(members * maps_.size(), [&] {
                for (const Map& map : maps_)
                    benchmark::DoNotOptimize(map.sum());
            });
        }

      private:
        std::array<Map, 4> maps_;
    };
};

template <std::size_t members>
struct Insert {
    template <class Map>
    class In {
      public:
        double run() const {
            Map map;
            return timeEach(members, [&] { fill(map, keys_); });
        }

      private:
        Keys keys_ = someKeys(members, 1);
    };
};

template <std::size_t members>
struct Erase {
    template <class Map>
    class In {
      public:
        double run() {
            Map map;
            fill(map, keys_);
            std::shuffle(keys_.begin(), keys_.end(), random_);
            return timeEach(members, [&] {
                for (const Key& key : keys_)
                    map.erase(key);
            });
        }

      private:
        std::mt19937 random_;
        Keys keys_ = someKeys(members, 1);
    };
};

// One goes at random, a new one comes.
template <std::size_t members>
struct Replace {
    template <class Map>
    class In {
      public:
        In() { fill(map_, keys_); }
        double run() {
            return timeEach(members, [&] {
                for (std::size_t count = 0; count < members; ++count) {
                    Key& key = keys_[random_() % members];
                    map_.erase(key);
                    key.vrfId = ++vrfId_;
                    map_.insert(key, {vrfId_, 0});
                }
            });
        }

      private:
        std::minstd_rand random_;
        std::uint32_t vrfId_ = 1;
        Keys keys_ = someKeys(members, 1);
        Map map_;
    };
};

// What the allocator hands out for one map, and nothing else.
template <std::size_t members>
struct Bytes {
    template <class Map>
    struct In {
        double run() const {
            const Keys keys = someKeys(members, 1);
            const std::size_t before = inUse();
            Map map;
            fill(map, keys);
            return static_cast<double>(inUse() - before) / members;
        }
        static std::size_t inUse() {
            const auto info = mallinfo2();
            return info.uordblks + info.hblkhd;
        }
    };
};

// The longest single insert while a map grows. The same keys go in each time, so that what an insert itself
// costs comes again: of each insert the least time counts, which leaves out what other programs took from the
// processor.
template <std::size_t members>
struct LongestInsert {
    template <class Map>
    class In {
      public:
        double run() {
            Map map;
            auto least = least_.begin();
            for (const Key& key : keys_) {
                *least = std::min(*least, timeEach(1, [&] { map.insert(key, {1, 0}); }));
                ++least;
            }
            return *std::max_element(least_.begin(), least_.end());
        }

      private:
        Keys keys_ = someKeys(members, 1);
        std::vector<double> least_ = std::vector<double>(members, std::numeric_limits<double>::max());
    };
};

// ---- the report

struct Figures {
    const char* name;
    double goal; // at most so many times the flat map's; 0: none is set
    double ours;
    double flat;
    double standard;
};

template <class Measure>
Figures measure(const char* name, int passes, double goal = 0) {
    typename Measure::template In<Ours> ours;
    typename Measure::template In<Flat> flat;
    typename Measure::template In<Standard> standard;
    constexpr double most = std::numeric_limits<double>::max();
    Figures least{.name = name, .goal = goal, .ours = most, .flat = most, .standard = most};
    for (int pass = 0; pass < (Bench::quick ? (passes + 9) / 10 : passes); ++pass) {
        least.ours = std::min(least.ours, ours.run());
        least.flat = std::min(least.flat, flat.run());
        least.standard = std::min(least.standard, standard.run());
    }
    return least;
}

inline void report() {
    constexpr std::size_t some = 16'000;
    constexpr std::size_t many = 1'000'000;
    const std::vector<Figures> all{
        measure<Find<some, true>>("hit, 16k members with a 12-byte key", 100, 1.5),
        measure<Find<some, false>>("miss, 16k", 100),
        measure<Insert<some>>("insert, 0 to 16k", 100),
        measure<Erase<some>>("erase, 16k to 0", 100),
        measure<Replace<some>>("erase one and insert one, 16k", 100),
        measure<Iterate<some>>("iterate, 16k", 100, 0.5),
        measure<Bytes<some>>("bytes a member, 16k", 1, 0.85),
        measure<Find<8, true>>("hit, 8 members", 100),
        measure<Find<many, true>>("hit, 1M members", 3),
    };
    const Figures longest = measure<LongestInsert<many>>("longest insert, 0 to 1M", 4);

    Bench::Report flat("hashed container (ns, bytes)", "ours", "flat map");
    for (const Figures& figures : all)
        flat.atMost(figures.name, figures.ours, figures.flat, figures.goal);
    flat.atMost(longest.name, longest.ours, longest.flat);
    flat.atMost("longest insert, 0 to 1M, against 0.5 ms", longest.ours, 500'000, 1);
    Bench::Report standard("hashed container (ns, bytes)", "ours", "std");
    for (const Figures& figures : all)
        standard.atMost(figures.name, figures.ours, figures.standard);
    standard.atMost(longest.name, longest.ours, longest.standard);
}

} // namespace TableBench
