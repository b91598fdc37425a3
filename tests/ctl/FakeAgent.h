// A server in a thread of the test that stands in for the agent: it answers each line as the test says, and
// keeps what it was asked. One client at a time.
#pragma once

#include "tests/TestSocket.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace CtlTest {

// A request that was received; what is sent back is written as JSON text.
struct Request {
    std::string method = {};
    std::string params = {}; // JSON, without blanks
    std::int64_t id = 0;
};

class FakeAgent {
  public:
    /// Gives the text to send back for a request, lines with their newlines; nothing closes the connection.
    using Answer = std::function<std::string(const Request& request)>;

    explicit FakeAgent(Answer answer);
    ~FakeAgent();
    FakeAgent(const FakeAgent&) = delete;
    FakeAgent& operator=(const FakeAgent&) = delete;

    const std::string& path() const { return path_; }
    /// What has been asked so far.
    std::vector<Request> requests() const;
    /// Waits until so many requests have been answered; false when they don't.
    bool awaitRequests(std::size_t count) const;
    /// Sends text to the client that is connected.
    void tell(const std::string& text);

  private:
    void serve();
    void serveClient();

    Answer answer_;
    TemporaryFolder folder_;
    const std::string path_ = folder_.file("agent.sock");
    int listener_ = -1;
    int client_ = -1;
    int stop_ = -1;
    mutable std::mutex mutex_;
    std::vector<Request> requests_;
    std::thread thread_;
};

/// Answers to a request, each a line; results, errors and changes are JSON.
std::string resultLine(const Request& request, const std::string& result);
std::string errorLine(const Request& request, const std::string& error);
std::string changedLine(const std::string& change);
std::string snapshotLine(const std::string& page);

/// A run of kestrelctl.
struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

Outcome runCtl(const std::vector<std::string>& arguments);
/// Against a fake agent.
Outcome runCtl(const FakeAgent& agent, std::vector<std::string> arguments);

} // namespace CtlTest
