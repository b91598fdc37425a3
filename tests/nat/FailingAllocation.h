// Makes allocations fail at a chosen moment, so that a test can abandon a construction at each of its steps.
#pragma once

#include <cstddef>
#include <functional>

namespace FailingAllocation {

// Of the allocations from now on, the one after `allocations` more throws std::bad_alloc, once.
void failAfter(std::size_t allocations);
// None fails any more; true if one has since failAfter.
bool stop();

// Runs `construct` with its first allocation failing, then with its second, and so on, and at last with none;
// calls `afterFailure` each time that it was abandoned. How often that was. A failure that construct keeps to
// itself fails the test.
std::size_t atEachStepOf(const std::function<void()>& construct, const std::function<void()>& afterFailure);

} // namespace FailingAllocation
