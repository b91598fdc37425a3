// A network namespace of the test's or benchmark's own, made without root: interfaces, routes and daemons in
// it touch nothing outside, and go with the process.
//
// Each of a test's namespaces replaces the one before, for the whole process and the programs it starts.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace Agent::Kernel::Test {

/// Enters a fresh namespace, with lo up.
/// @return why not; empty where it is done.
std::string enterNetNamespace();

/// Whether a test that can't have a namespace must fail rather than be skipped: KESTREL_REQUIRE_NETNS=1.
bool netNamespaceRequired();

/// Runs a command line by the shell. @throws std::runtime_error with what it wrote when it fails.
void shell(const std::string& command);

/// veth pairs e1-p1 to e4-p4, up; 10.9.i.1/24 on e_i and 10.9.1.2/24 on p1, so that what is sent from p1 is
/// routed from e1. @throws std::runtime_error
void makeInterfaces();

/// A program that is ended with its owner. What it writes is dropped.
class Program {
  public:
    /// @throws std::system_error when it can't be started.
    explicit Program(const std::vector<std::string>& command);
    ~Program() { stop(); }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    /// Asks it to leave and waits for that.
    void stop();

  private:
    static pid_t started(const std::vector<std::string>& command);

    pid_t pid_ = -1;
};

} // namespace Agent::Kernel::Test

/// In a test's body: enters a namespace, or skips the test, or fails it where skipping is not allowed.
#define ENTER_NET_NAMESPACE()                                                                                \
    if (std::string why = ::Agent::Kernel::Test::enterNetNamespace(); !why.empty()) {                        \
        if (::Agent::Kernel::Test::netNamespaceRequired())                                                   \
            FAIL() << "no network namespace: " << why;                                                       \
        GTEST_SKIP() << "no network namespace: " << why;                                                     \
    }
