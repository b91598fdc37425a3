// A client of the control socket that sends and hears bytes and lines.
#pragma once

#include "agent/host/Fd.h"
#include "tests/TestSocket.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace AgentTest {

using ::TemporaryFolder;

class TestClient {
  public:
    /// Connects; fails the test's process by an exception when nobody listens.
    explicit TestClient(const std::string& path);

    int fd() const { return socket_.get(); }
    /// Sends everything, waiting as long as it takes. False when the server has gone.
    bool send(const std::string& text) const;
    /// Sends as much as goes without waiting. Returns the bytes sent.
    std::size_t sendSome(const std::string& text) const;
    /// The next line without its newline; nothing at the end, or when none came in time.
    std::optional<std::string> line(std::chrono::milliseconds patience = std::chrono::seconds(20));
    /// Sends a line and returns the next one.
    std::string ask(const std::string& request);
    /// Whether the server closed the connection and nothing is left to read, after line() found no whole
    /// line.
    bool ended() const;
    void closeSendingSide() const;
    void close() { socket_.close(); }

  private:
    Agent::Fd socket_;
    std::string received_;
    std::size_t taken_ = 0; // of it, as lines
};

} // namespace AgentTest
