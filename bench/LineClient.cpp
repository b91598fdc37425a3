#include "bench/LineClient.h"

#include "bench/Report.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace Bench {

LineClient::LineClient(const std::string& path)
    : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    , buffer_(65536, '\0') {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
    if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), path);
}

LineClient::~LineClient() {
    ::close(socket_);
}

void LineClient::exchange(std::string_view lines, std::size_t count) {
    received_.clear();
    newlines_ = 0;
    while (!lines.empty()) {
        const ssize_t sent = ::send(socket_, lines.data(), lines.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            lines.remove_prefix(static_cast<std::size_t>(sent));
            continue;
        }
        if (errno != EAGAIN)
            refuse("the server is gone");
        pollfd wait{.fd = socket_, .events = POLLIN | POLLOUT, .revents = 0};
        ::poll(&wait, 1, -1);
        if ((wait.revents & POLLIN) != 0)
            readSome();
    }
    while (newlines_ < count)
        readSome();
}

void LineClient::readSome() {
    const ssize_t count = ::recv(socket_, buffer_.data(), buffer_.size(), 0);
    if (count <= 0)
        refuse("the server is gone");
    const std::string_view came(buffer_.data(), static_cast<std::size_t>(count));
    newlines_ += static_cast<std::size_t>(std::ranges::count(came, '\n'));
    received_.append(came);
}

} // namespace Bench
