#include "tests/nat/FailingAllocation.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <utility>

namespace {

std::size_t allocationsUntilFailure = 0; // 0: none fails
bool hasFailed = false;

} // namespace

void FailingAllocation::failAfter(std::size_t allocations) {
    allocationsUntilFailure = allocations + 1;
    hasFailed = false;
}

bool FailingAllocation::stop() {
    allocationsUntilFailure = 0;
    return std::exchange(hasFailed, false);
}

std::size_t FailingAllocation::atEachStepOf(const std::function<void()>& construct,
                                            const std::function<void()>& afterFailure) {
    for (std::size_t steps = 0; steps < 10'000; ++steps) {
        failAfter(steps);
        try {
            construct();
            EXPECT_FALSE(stop()) << "allocation " << steps << " failed unnoticed";
            return steps;
        } catch (const std::bad_alloc&) {
            stop();
            afterFailure();
        }
    }
    ADD_FAILURE() << "there is no end of allocations";
    return 0;
}

// The program's own allocation functions; those for arrays may be the sanitizer's. A caller who is ready to
// see an allocation fail (std::nothrow) never does.
void* operator new(std::size_t size) {
    if (allocationsUntilFailure != 0 && --allocationsUntilFailure == 0) {
        hasFailed = true;
        throw std::bad_alloc();
    }
    if (void* memory = std::malloc(size == 0 ? 1 : size))
        return memory;
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
