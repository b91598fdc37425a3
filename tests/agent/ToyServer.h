// A control server with a toy dispatcher in a process of its own, as the agent is one.
//
// Its methods: `echo` gives its parameters back; `size` the bytes of `text`; `big` a text of `bytes`; `count`
// how many calls there were; `sleep` waits `ms`; `follow` makes the caller hear `tell`, which sends `count`
// notifications of `bytes` to all who follow; `status` tells what the server counts.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace AgentTest {

class ToyServer {
  public:
    /// @param descriptors how many the process may open; 0 leaves the limit alone.
    explicit ToyServer(std::string path, unsigned descriptors = 0);
    ~ToyServer();
    ToyServer(const ToyServer&) = delete;
    ToyServer& operator=(const ToyServer&) = delete;

    const std::string& path() const { return path_; }
    /// Memory that the process has, in bytes; 0 under the address sanitizer, which keeps what was freed.
    std::size_t memory() const;
    /// Ends the process as a service manager would, and returns its exit status.
    int stop();

  private:
    std::string path_;
    pid_t process_ = -1;
};

} // namespace AgentTest
