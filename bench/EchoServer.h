// A Unix socket server that sends back what it reads and does nothing else: what a round trip over a socket
// costs at least, beside which the agent's is put.
//
// It is a process of its own, as the agent is, that serves one client after another with blocking reads and
// writes.
#pragma once

#include <sys/types.h>

#include <string>

namespace Bench {

class EchoServer {
  public:
    /// Starts serving; clients can connect when it returns.
    /// @throws std::system_error when the path can't be bound or the process not made.
    explicit EchoServer(const std::string& path);
    /// Ends the process and removes the socket.
    ~EchoServer();
    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;

    pid_t pid() const { return process_; }

  private:
    std::string path_;
    pid_t process_ = -1;
};

} // namespace Bench
