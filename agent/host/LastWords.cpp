#include "agent/host/LastWords.h"

#include "state/Fatal.h"
#include "state/Trace.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

namespace Agent {

namespace {

const std::terminate_handler usualEnd = std::get_terminate();

void onFatal(void* /*context*/) {
    printLastRecords();
}

[[noreturn]] void onTerminate() {
    const char* what = "std::terminate was called";
    std::exception_ptr current = std::current_exception();
    try {
        if (current) {
            what = "an exception of an unknown type";
            std::rethrow_exception(current);
        }
    } catch (const std::exception& error) {
        what = error.what();
    } catch (...) { // NOLINT(bugprone-empty-catch): it has no text
    }
    std::fprintf(stderr, "kestrel-agent: uncaught: %s\n", what);
    printLastRecords();
    std::abort();
}

} // namespace

void sayLastWords() {
    State::fatalHookIs(&onFatal, nullptr);
    std::set_terminate(&onTerminate);
}

void dropLastWords() {
    State::fatalHookDel(&onFatal, nullptr);
    std::set_terminate(usualEnd);
}

void printLastRecords() {
    constexpr std::size_t records = 50;
    std::fputs("last trace records:\n", stderr);
    State::traceDumpLast(records, stderr);
    std::fflush(stderr);
}

} // namespace Agent
