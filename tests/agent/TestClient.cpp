#include "tests/agent/TestClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace AgentTest {

TestClient::TestClient(const std::string& path)
    : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    const timeval patience{.tv_sec = 20,
                           .tv_usec = 0}; // an agent that reads no more fails a test, it does not hang one
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), path);
}

bool TestClient::send(const std::string& text) const {
    for (std::size_t sent = 0; sent < text.size();) {
        const ssize_t count = ::send(fd(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (count < 0)
            return false;
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

std::size_t TestClient::sendSome(const std::string& text) const {
    const ssize_t count = ::send(fd(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

std::optional<std::string> TestClient::line(std::chrono::milliseconds patience) {
    std::size_t end = received_.find('\n', taken_);
    while (end == std::string::npos) {
        pollfd wait{.fd = fd(), .events = POLLIN, .revents = 0};
        if (::poll(&wait, 1, static_cast<int>(patience.count())) <= 0)
            return std::nullopt;
        std::array<char, 65536> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init)
        const ssize_t count = ::recv(fd(), buffer.data(), buffer.size(), 0);
        if (count <= 0)
            return std::nullopt;
        received_.erase(0, std::exchange(taken_, 0));
        const std::size_t before = received_.size();
        received_.append(buffer.data(), static_cast<std::size_t>(count));
        end = received_.find('\n', before);
    }
    const std::size_t begin = std::exchange(taken_, end + 1);
    return received_.substr(begin, end - begin);
}

std::string TestClient::ask(const std::string& request) {
    send(request + "\n");
    return line().value_or("(no answer)");
}

bool TestClient::ended() const {
    pollfd wait{.fd = fd(), .events = POLLIN, .revents = 0};
    char byte = 0;
    return ::poll(&wait, 1, 20'000) > 0 && ::recv(fd(), &byte, 1, 0) <= 0;
}

void TestClient::closeSendingSide() const {
    ::shutdown(fd(), SHUT_WR);
}

} // namespace AgentTest
