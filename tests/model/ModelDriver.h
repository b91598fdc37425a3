// Applies random operations to the naive model and to a system side by side and compares everything that can
// be seen after each of them. A run is cut into episodes, each with a fresh system and a seed of its own, so
// that a failing one is short to repeat; its operations are then thinned out as long as it still fails.
// Environment: KESTREL_TEST_SEED is the seed of the first episode, KESTREL_MODEL_OPS the number of
// operations.
#pragma once

#include "tests/model/Operation.h"
#include "tests/model/SystemUnderTest.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Model {

struct Settings {
    std::uint64_t seed = 1; // of the first episode; the next one's is greater by one
    std::size_t operations = 200'000;
    std::size_t episodeLength = 2'000;

    /// Settings from the environment; a seed drawn from the machine where none is given.
    /// Throws std::invalid_argument, naming the variable, where one isn't a number.
    static Settings fromEnvironment();
};

class ModelDriver {
  public:
    using SystemFactory = std::function<std::unique_ptr<SystemUnderTest>()>;

    /// `makeSystem` makes a system in its initial state.
    ModelDriver(Source source, SystemFactory makeSystem);

    /// Runs the operations. Gives a report of the first disagreement: the seed that repeats it, the
    /// operations left after thinning out, and what differs; nothing when there was none. Ended by an abort
    /// of the system, it prints the seed and the last operations to standard error.
    std::optional<std::string> run(const Settings& settings);

  private:
    using Operations = std::vector<Operation>;

    /// The operations of one episode up to the first disagreement; nothing when there was none.
    std::optional<Operations> failingEpisode(std::uint64_t seed, std::size_t length);
    /// Those of the operations that the guards let through, up to the first disagreement.
    std::optional<Operations> failingReplay(const Operations& operations,
                                            std::string* disagreement = nullptr);
    Operations thinnedOut(Operations operations);
    std::string report(std::uint64_t seed, const Operations& operations);

    Source source_;
    SystemFactory makeSystem_;
};

} // namespace Model
