// Applies random operations to the naive model and to the plug-in side by side and compares everything that can
// be seen after each of them. A run is cut into episodes, each with fresh stores and a seed of its own, so
// that a failing one is short to repeat; its operations are then thinned out as long as it still fails.
// Environment: KESTREL_TEST_SEED is the seed of the first episode, KESTREL_MODEL_OPS the number of
// operations.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace Model {

struct Settings {
    std::uint64_t seed = 1; // of the first episode; the next one's is greater by one
    std::size_t operations = 150'000;
    std::size_t episodeLength = 2'000;

    /// Settings from the environment; a seed drawn from the machine where none is given.
    /// Throws std::invalid_argument, naming the variable, where one isn't a number.
    static Settings fromEnvironment();
};

/// Runs the operations. Gives a report of the first disagreement: the seed that repeats it, the operations left after
/// thinning out, as lines of a scenario, and what differs; nothing when there was none. Ended by an abort of the
/// plug-in, it prints the seed and the last operations to standard error.
std::optional<std::string> disagreementOfModelAndPlugIn(const Settings& settings);

} // namespace Model
