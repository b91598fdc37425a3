// A kestrel-agent of this build in a process of its own.
#pragma once

#include <sys/types.h>

#include <string>

namespace Bench {

class AgentProcess {
  public:
    /// Starts the agent on a control socket of that path and waits until it says that it is ready.
    /// @throws std::runtime_error when it ends instead.
    explicit AgentProcess(const std::string& socket);
    /// Ends it.
    ~AgentProcess();
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    pid_t pid() const { return process_; }

  private:
    pid_t process_ = -1;
};

} // namespace Bench
