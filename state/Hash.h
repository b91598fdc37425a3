// Hashing: the incremental hasher that every key type uses for its `hash(seed)`, the seed of this process,
// and HashOf, through which a table (state/Table.h) hashes its keys.
#pragma once

#include <concepts>
#include <cstdint>
#include <string_view>

namespace State {

/// A 32-bit hash over the values mixed in, in order. Each step multiplies the state by an odd constant and
/// folds the 128-bit product to 64 bits (after the "mum" step of wyhash, by Wang Yi). Not for adversaries who
/// know the seed.
class Hasher {
  public:
    explicit constexpr Hasher(std::uint32_t seed = 0)
        : state_((std::uint64_t{seed} + 1) * stepFactor) {}

    /// Mixes in a number of 8 to 64 bits, or a bool. Equal numbers of different width mix equally.
    template <std::unsigned_integral Number>
    constexpr Hasher& mix(Number number) {
        state_ = foldedProduct(state_ ^ std::uint64_t{number}, stepFactor);
        return *this;
    }
    /// Mixes in the characters and their count.
    Hasher& mix(std::string_view bytes);

    constexpr std::uint32_t result() const {
        return static_cast<std::uint32_t>(foldedProduct(state_, lastFactor) >> 16);
    }

  private:
    static constexpr std::uint64_t stepFactor = 0x9e3779b97f4a7c15U;
    static constexpr std::uint64_t lastFactor = 0xd6e8feb86659fd93U;

    static constexpr std::uint64_t foldedProduct(std::uint64_t a, std::uint64_t b) {
        __extension__ using Wide = unsigned __int128;
        const Wide product = static_cast<Wide>(a) * b;
        return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
    }

    std::uint64_t state_;
};

/// The seed of this process: random, fixed at first use.
std::uint32_t processHashSeed();
/// Fixes the seed, for tests: call it before the first table is made.
void processHashSeedIs(std::uint32_t seed);

/// How a table hashes a key: by its `hash(seed)`, or as a number, or as text. Specialise it for other types.
template <class Key>
struct HashOf {
    std::uint32_t operator()(const Key& key, std::uint32_t seed) const {
        if constexpr (requires { key.hash(seed); })
            return key.hash(seed);
        else if constexpr (std::unsigned_integral<Key>)
            return Hasher(seed).mix(key).result();
        else
            return Hasher(seed).mix(std::string_view(key)).result();
    }
};

/// A key that was hashed once, for look-ups in several tables of one seed; a table of another seed hashes it
/// again.
template <class Key>
class HashedKey {
  public:
    HashedKey(const Key& key, std::uint32_t seed)
        : key_(key)
        , seed_(seed)
        , hash_(HashOf<Key>{}(key, seed)) {}
    const Key& key() const { return key_; }
    std::uint32_t hash(std::uint32_t seed) const { return seed == seed_ ? hash_ : HashOf<Key>{}(key_, seed); }

  private:
    const Key& key_;
    std::uint32_t seed_;
    std::uint32_t hash_;
};

/// The key itself, of one that may be hashed.
template <class Key>
const Key& unhashed(const Key& key) {
    return key;
}
template <class Key>
const Key& unhashed(const HashedKey<Key>& key) {
    return key.key();
}

} // namespace State
