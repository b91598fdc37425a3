// A real kestrel-agent in a process of its own, and a client that talks JSON-RPC to it.
#pragma once

#include "tests/agent/Json.h"
#include "tests/agent/TestClient.h"

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace AgentTest {

/// A client that numbers its requests and keeps notifications apart from answers.
class RpcClient : public TestClient {
  public:
    using TestClient::TestClient;

    /// The result. Fails the test and yields null when there is an error instead.
    Json result(const std::string& method, const Json& params = json("{}")) {
        return ask(method, params, "result");
    }
    /// What a line of the grammar gives.
    Json run(const std::string& line) { return result("command", json("{'line': %}", line)).at("result"); }
    /// The error object. Fails the test and yields null when there is a result instead.
    Json error(const std::string& method, const Json& params = json("{}")) {
        return ask(method, params, "error");
    }

    /// Parameters of the next notification; null when none came in time.
    Json notification(std::chrono::milliseconds patience = std::chrono::seconds(20));

  private:
    Json ask(const std::string& method, const Json& params, const char* wanted);

    int lastId_ = 0;
    std::vector<Json> notifications_;
};

class AgentProcess {
  public:
    /// Starts an agent on a socket in `folder` and waits until it is ready. What it says on standard error goes to the
    /// file agent.err of the folder.
    /// @throws std::runtime_error with what it said when it does not become ready.
    explicit AgentProcess(const TemporaryFolder& folder, const std::vector<std::string>& options = {});
    ~AgentProcess();
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    RpcClient client() const { return RpcClient(socket_); }
    const std::string& socket() const { return socket_; }
    pid_t pid() const { return process_; }
    /// What it said on standard error so far.
    std::string said() const;

    void signal(int number) const;
    /// Waits for its end: the exit status, or 128 and the signal's number.
    int wait();
    /// Ends it as a service manager would, and waits.
    int stop();

  private:
    std::string socket_;
    std::string errors_;
    Agent::Fd out_; // its standard output, which nobody reads once it is ready
    pid_t process_ = -1;
};

/// Waits for a child's end: the exit status, or 128 and the signal's number. One that goes on for half a minute fails the test
/// and is killed.
int endOf(pid_t process);

/// Runs an agent with these options alone to its end.
struct Finished {
    int status = 0;
    std::string out;
    std::string err;
};
Finished runAgent(const std::vector<std::string>& options, const std::string& input = {});

/// Writes a file into the folder and returns its path.
std::string writeFile(const TemporaryFolder& folder, const std::string& name, const std::string& text);

} // namespace AgentTest
