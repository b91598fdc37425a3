// All answers as they are, page by page, in an order of their own: what a watcher is told first, and again when it has
// missed changes. Picked as `show` picks its pages (language/Least.h).
#pragma once

#include "agent/changes/Answers.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Agent {

/// Where an answer stands: service and VRF, group and source, interface, VLAN and type, as numbers.
using AnswerPlace = std::array<std::uint64_t, 4>;

struct SnapshotPage {
    /// Most answers of a page; fewer that make much text.
    static constexpr std::size_t pageAnswers = 256;

    std::vector<AnswerChange> answers;
    std::optional<AnswerPlace> last; // the place of the last, if there are more
};

/// @param after place of the last answer of the page before; none: from the first.
SnapshotPage snapshotPage(const Stores& stores, const std::optional<AnswerPlace>& after);

} // namespace Agent
