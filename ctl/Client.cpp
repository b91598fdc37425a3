#include "ctl/Client.h"

#include <nlohmann/json.hpp>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace Ctl {

namespace {

/// The message, and where the fault is as far as the message does not say so itself.
std::string textOf(const Json& error) {
    std::string text = error.value("message", std::string("the agent refuses without a message"));
    const auto data = error.find("data");
    if (data == error.end() || !data->is_object())
        return text;
    std::string where;
    for (const char* name : {"path", "attribute", "field"}) {
        const auto part = data->find(name);
        if (part == data->end() || !part->is_string())
            continue;
        const std::string& value = part->get_ref<const std::string&>();
        if (text.find(value) == std::string::npos)
            where += (where.empty() ? "" : ", ") + (name + (" " + value));
    }
    return where.empty() ? text : text + " (" + where + ")";
}

std::string whyNot(int error, const std::string& path) {
    switch (error) {
    case ENOENT:
        return "no agent at " + path + ": there is no such socket; --socket names another";
    case ECONNREFUSED:
        return "no agent at " + path + ": the one that made the socket has gone";
    case EACCES:
    case EPERM:
        return "the agent at " + path + " serves its own user only: permission denied";
    default:
        return "no agent at " + path + ": " + std::strerror(error);
    }
}

} // namespace

AgentError::AgentError(const Json& error)
    : std::runtime_error(textOf(error))
    , code_(error.value("code", 0))
    , object_(std::make_shared<const Json>(error)) {}

Client::Client(const std::string& path)
    : path_(path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        throw ConnectionError("no agent at '" + path + "': a socket's path has 1 to " +
                              std::to_string(sizeof address.sun_path - 1) + " bytes");
    std::memcpy(address.sun_path, path.data(), path.size());
    socket_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket_ < 0 || ::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        if (socket_ >= 0)
            ::close(socket_);
        throw ConnectionError(whyNot(error, path));
    }
}

Client::~Client() {
    ::close(socket_);
}

Json Client::call(const std::string& method, const Json& params) {
    const std::int64_t id = ++lastId_;
    const std::string request =
        Json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}}.dump();
    if (request.size() > messageLimit)
        throw std::runtime_error("the request has " + std::to_string(request.size()) +
                                 " bytes, the agent takes " + std::to_string(messageLimit));
    send(request + "\n");
    for (;;) {
        const std::optional<std::string> line = takeLine();
        if (!line) {
            receive(std::nullopt, -1);
            continue;
        }
        Json message = Json::parse(*line, nullptr, false);
        if (!message.is_object())
            lost("it speaks another language");
        if (message.contains("method")) {
            notifications_.push_back(*line);
            continue;
        }
        // Without an id the agent refuses something as a whole, such as one client too many.
        if (const auto error = message.find("error"); error != message.end() && error->is_object())
            throw AgentError(*error);
        if (message.value("id", Json()) == id && message.contains("result"))
            return std::move(message["result"]);
        lost("it answers another question");
    }
}

std::optional<Json> Client::notification(std::optional<Clock::time_point> deadline, int cancel) {
    while (notifications_.empty())
        if (std::optional<std::string> line = takeLine())
            notifications_.push_back(std::move(*line));
        else if (!receive(deadline, cancel))
            return std::nullopt;
    const Json message = Json::parse(notifications_.front(), nullptr, false);
    notifications_.pop_front();
    if (!message.is_object() || !message.contains("params"))
        lost("it speaks another language");
    return message.at("params");
}

void Client::send(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::send(socket_, text.data(), text.size(), MSG_NOSIGNAL);
        if (count >= 0)
            text.remove_prefix(static_cast<std::size_t>(count));
        else if (errno == EPIPE || errno == ECONNRESET)
            return; // it may have said why before it closed
        else if (errno != EINTR)
            lost(std::strerror(errno));
    }
}

/// Waits for bytes and takes what is there.
/// @return false when the deadline or `cancel` came first.
bool Client::receive(std::optional<Clock::time_point> deadline, int cancel) {
    int timeout = -1;
    if (deadline) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
        timeout = static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
    }
    std::array<pollfd, 2> waits{
        {{.fd = socket_, .events = POLLIN, .revents = 0}, {.fd = cancel, .events = POLLIN, .revents = 0}}};
    const int ready = ::poll(waits.data(), waits.size(), timeout);
    if (ready < 0 && errno != EINTR)
        lost(std::strerror(errno));
    if (ready == 0 || waits[1].revents != 0)
        return false;
    if (ready < 0)
        return true;
    std::array<char, 65536> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init)
    const ssize_t count = ::recv(socket_, buffer.data(), buffer.size(), 0);
    if (count == 0)
        lost("it closed the connection");
    if (count > 0)
        received_.append(buffer.data(), static_cast<std::size_t>(count));
    else if (errno != EINTR)
        lost(std::strerror(errno));
    return true;
}

std::optional<std::string> Client::takeLine() {
    const std::size_t end = received_.find('\n', scanned_);
    if (end == std::string::npos) {
        received_.erase(0, begin_);
        begin_ = 0;
        scanned_ = received_.size();
        return std::nullopt;
    }
    std::string line = received_.substr(begin_, end - begin_);
    begin_ = scanned_ = end + 1;
    return line;
}

void Client::lost(const std::string& why) const {
    throw ConnectionError("the agent at " + path_ + " is lost: " + why);
}

std::string defaultSocketPath() {
    if (::geteuid() == 0)
        return "/run/kestrel-nat.sock";
    const char* directory = std::getenv("XDG_RUNTIME_DIR");
    if (directory == nullptr || *directory == '\0')
        throw std::runtime_error("XDG_RUNTIME_DIR is not set: name the agent's socket with --socket");
    return std::string(directory) + "/kestrel-nat.sock";
}

} // namespace Ctl
