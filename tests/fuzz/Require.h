// What must hold whatever the input: a finding of the fuzzer where it does not.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

/// @param what is said before the process ends.
inline void require(bool holds, const std::string& what) {
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", what.c_str());
    std::abort();
}
