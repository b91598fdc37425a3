#include "state/Hash.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <random>

namespace State {

namespace {

std::optional<std::uint32_t>& seedOfProcess() {
    static std::optional<std::uint32_t> seed;
    return seed;
}

} // namespace

Hasher& Hasher::mix(std::string_view bytes) {
    mix(std::uint64_t{bytes.size()});
    for (std::size_t at = 0; at < bytes.size(); at += sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes.data() + at, std::min(sizeof(word), bytes.size() - at));
        mix(word);
    }
    return *this;
}

std::uint32_t processHashSeed() {
    std::optional<std::uint32_t>& seed = seedOfProcess();
    if (!seed)
        seed = std::random_device{}();
    return *seed;
}

void processHashSeedIs(std::uint32_t seed) {
    seedOfProcess() = seed;
}

} // namespace State
