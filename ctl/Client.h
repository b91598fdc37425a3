// A connection to the agent's control socket: one JSON-RPC message a line, requests answered in order,
// notifications kept until someone asks for them.
//
// CommandLine.cpp makes one per run. Read next: Commands.h.
#pragma once

#include "ctl/Message.h"
#include "text/Writer.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Ctl {

using Clock = std::chrono::steady_clock;

/// The agent answered with an error object.
class AgentError : public std::runtime_error {
  public:
    /// The code of an `expect` that did not hold.
    static constexpr int expectationFailed = -32001;
    /// That of what is too large or too many.
    static constexpr int limitReached = -32002;

    /// @param error the error object of the answer.
    explicit AgentError(const Message& error);

    bool isExpectation() const { return object_.findNumber("code") == expectationFailed; }
    bool isLimit() const { return object_.findNumber("code") == limitReached; }
    /// Whether a word of the line is wrong that the user gave on the command line.
    bool isUsage() const;
    /// The whole error object.
    const Message& object() const { return object_; }

  private:
    Message object_;
};

class Client {
  public:
    /// Bytes of a message, without its newline, that the agent takes.
    static constexpr std::size_t messageLimit = 4U << 20U;

    /// Connects.
    /// @throws ConnectionError when nobody serves the path, or not for this user; it names the path.
    explicit Client(const std::string& path);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Sends a request and waits for its result.
    /// @param params writes the members of its parameters.
    /// @throws AgentError when the agent refuses it; ConnectionError when the agent goes before it has
    /// answered.
    /// @throws std::runtime_error when the request is larger than the agent takes.
    Message call(std::string_view method, const Text::Tell& params);

    /// Has SIGINT and SIGTERM end the waits for notifications instead of the program.
    void endOnInterrupt();

    /// Waits for the next notification.
    /// @param deadline until when; none waits for ever.
    /// @return the notification's parameters, or nothing when the wait ended without one.
    /// @throws ConnectionError when the agent closed the connection.
    std::optional<Message> notification(std::optional<Clock::time_point> deadline = std::nullopt);

    /// Whether a notification has arrived that notification() would return at once.
    bool hasNotification() const;

  private:
    struct Connection;

    void send(std::string_view text);
    std::string takeLine();
    [[noreturn]] void lost(const std::string& why) const;

    std::string path_;
    std::unique_ptr<Connection> connection_;
    std::int64_t lastId_ = 0;
    std::deque<std::string> notifications_; // as received
};

} // namespace Ctl
