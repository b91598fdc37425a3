// Seed of a random test: the environment's KESTREL_TEST_SEED, or a new one. A test puts seedText() into its
// failures (SCOPED_TRACE), so that they can be repeated.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

inline std::uint32_t testSeed() {
    const char* given = std::getenv("KESTREL_TEST_SEED");
    return given == nullptr ? std::random_device()()
                            : static_cast<std::uint32_t>(std::strtoul(given, nullptr, 0));
}

inline std::string seedText(std::uint32_t seed) {
    return "repeat with KESTREL_TEST_SEED=" + std::to_string(seed);
}
