// The end of the process on a broken invariant, in every build type: one line on standard error, then the
// last words (what others registered: the agent prints the latest trace records there), then abort. Printing
// allocates nothing. An error that a caller can make is an exception instead (state/Errors.h).
#pragma once

namespace State {

/// Prints "FILE:LINE: FUNCTION: Assertion `TEXT' failed.", runs the last words in the order of their
/// registration and aborts. A failure inside the last words prints its own line and aborts at once.
[[noreturn, gnu::cold]] void fatal(const char* text, const char* file, unsigned line, const char* function);

/// The same for an exception that left a reactor: prints "exception left a reactor: WHAT".
[[noreturn, gnu::cold]] void fatalException(const char* what);

using FatalHook = void (*)(void* context);

/// Adds last words; at most eight pairs, a pair that is there already is not added again.
void fatalHookIs(FatalHook hook, void* context);
/// Takes them away; absent is no error.
void fatalHookDel(FatalHook hook, void* context);

} // namespace State

// Ends the process unless `condition` holds. `text` is a string literal: the asserted text exactly as it must
// read, written out and not made from the code, so that no formatter changes it.
#define FATAL_ASSERT(condition, text)                                                                        \
    ((condition) ? static_cast<void>(0) : ::State::fatal("" text, __FILE__, __LINE__, __PRETTY_FUNCTION__))
