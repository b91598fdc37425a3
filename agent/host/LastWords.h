// What the agent's process says when it ends against its will: by a fatal assertion, an exception that left a
// reactor or the running loop, or one that nobody caught. After the text itself the last trace records follow on
// standard error. A start that fails is no such end: it says its one line.
#pragma once

namespace Agent {

/// Has the last words said from now on.
void sayLastWords();
/// Not any more: for a forked child, whose end is its parent's to tell.
void dropLastWords();
/// Prints the last trace records on standard error.
void printLastRecords();

} // namespace Agent
