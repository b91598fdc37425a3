// Makes allocations fail at a chosen moment, so that a test can abandon a construction at each of its steps.
#pragma once

#include <cstddef>

namespace FailingAllocation {

// Of the allocations from now on, the one after `allocations` more throws std::bad_alloc, once.
void failAfter(std::size_t allocations);
// None fails any more; true if one has since failAfter.
bool stop();

} // namespace FailingAllocation
