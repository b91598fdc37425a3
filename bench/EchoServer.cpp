#include "bench/EchoServer.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

namespace Bench {

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// Echoes to one client until it goes.
void echo(int client) {
    std::array<char, 65536> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init)
    for (;;) {
        const ssize_t count = ::recv(client, buffer.data(), buffer.size(), 0);
        if (count <= 0)
            return;
        for (ssize_t sent = 0; sent < count;) {
            const ssize_t now =
                ::send(client, buffer.data() + sent, static_cast<std::size_t>(count - sent), MSG_NOSIGNAL);
            if (now < 0)
                return;
            sent += now;
        }
    }
}

[[noreturn]] void serve(int listener) {
    for (;;) {
        const int client = ::accept(listener, nullptr, nullptr);
        if (client < 0)
            ::_exit(1);
        echo(client);
        ::close(client);
    }
}

} // namespace

EchoServer::EchoServer(const std::string& path)
    : path_(path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    std::memcpy(address.sun_path, path.data(), path.size());

    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0)
        fail("socket");
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, SOMAXCONN) != 0)
        fail("bind");
    process_ = ::fork();
    if (process_ < 0)
        fail("fork");
    if (process_ == 0)
        serve(listener);
    ::close(listener);
}

EchoServer::~EchoServer() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
    ::unlink(path_.c_str());
}

} // namespace Bench
