// A message of the agent, or a value in one: JSON, checked as a whole when it is parsed.
//
// Values share their message and keep it alive. Client.cpp makes them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Ctl {

/// The agent can't be reached, has gone, or says what is no message of the protocol.
class ConnectionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Message {
  public:
    /// Nothing for what is no JSON object.
    static std::optional<Message> parse(const std::string& json);

    /// A member of an object; nothing where there is none, or not of that kind.
    std::optional<Message> find(std::string_view name) const;
    std::optional<std::string> findText(std::string_view name) const;
    std::optional<std::int64_t> findNumber(std::string_view name) const;
    bool isTrue(std::string_view name) const;
    /// The elements of a list; none where there is no list.
    std::vector<Message> list(std::string_view name) const;

    /// A member that must be there. @throws ConnectionError where it is not.
    Message at(std::string_view name) const;
    std::string text(std::string_view name) const;
    std::int64_t number(std::string_view name) const;

    /// The value as it came, without blanks and newlines.
    std::string json() const;

  private:
    struct Node;
    explicit Message(Node node);

    std::shared_ptr<const Node> node_;
};

bool isUtf8(std::string_view text);

} // namespace Ctl
