// A connection to the agent's control socket: one JSON-RPC message a line, requests answered in order,
// notifications kept until someone asks for them.
//
// CommandLine.cpp makes one per run. Read next: Commands.h.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Ctl {

/// Keeps the order in which the agent wrote the fields.
using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

/// The agent can't be reached, or has gone; the message names the socket's path.
class ConnectionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The agent answered with an error object.
class AgentError : public std::runtime_error {
  public:
    /// The code of an `expect` that did not hold.
    static constexpr int expectationFailed = -32001;

    /// @param error the error object of the answer.
    explicit AgentError(const Json& error);

    int code() const { return code_; }
    /// The whole error object.
    const Json& object() const { return *object_; }

  private:
    int code_;
    std::shared_ptr<const Json> object_;
};

class Client {
  public:
    /// Bytes of a message, without its newline, that the agent takes.
    static constexpr std::size_t messageLimit = 4U << 20U;

    /// Connects.
    /// @throws ConnectionError when nobody serves the path, or not for this user.
    explicit Client(const std::string& path);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Sends a request and waits for its result.
    /// @throws AgentError when the agent refuses it; ConnectionError when the agent goes before it has
    /// answered.
    /// @throws std::runtime_error when the request is larger than the agent takes.
    Json call(const std::string& method, const Json& params);

    /// Waits for the next notification.
    /// @param deadline until when; none waits for ever.
    /// @param cancel a descriptor that ends the wait when it becomes readable; -1 is none.
    /// @return the notification's parameters, or nothing when the wait ended without one.
    /// @throws ConnectionError when the agent closed the connection.
    std::optional<Json> notification(std::optional<Clock::time_point> deadline, int cancel = -1);

    /// Whether a notification has arrived that notification() would return at once.
    bool hasNotification() const { return !notifications_.empty(); }

  private:
    void send(std::string_view text);
    bool receive(std::optional<Clock::time_point> deadline, int cancel);
    std::optional<std::string> takeLine();
    [[noreturn]] void lost(const std::string& why) const;

    std::string path_;
    int socket_ = -1;
    std::int64_t lastId_ = 0;
    std::string received_;
    std::size_t begin_ = 0;                 // of what is not taken yet in received_
    std::size_t scanned_ = 0;               // no newline from begin_ to here
    std::deque<std::string> notifications_; // as received
};

/// The socket that is spoken to unless told otherwise: /run/kestrel-nat.sock as root, else
/// $XDG_RUNTIME_DIR/kestrel-nat.sock.
/// @throws std::runtime_error when XDG_RUNTIME_DIR is needed and not set.
std::string defaultSocketPath();

} // namespace Ctl
