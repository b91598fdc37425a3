// The framework's one thread: the first that publishes or traces. There are no locks, so another one would do harm
// unseen; it ends the process instead.
#pragma once

namespace State {

/// The thread pointer of the one thread; null until it is known.
extern void* theThread;
/// Makes a thread the one, where there is none; fatal where another one is.
[[gnu::cold]] void theThreadIs(void* threadPointer);

/// Fatal on any thread but the one.
inline void assertOneThread() {
    void* const self = __builtin_thread_pointer();
    if (self != theThread) [[unlikely]]
        theThreadIs(self);
}

} // namespace State
