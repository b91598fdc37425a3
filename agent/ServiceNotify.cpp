#include "agent/ServiceNotify.h"

#include "agent/host/Fd.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace Agent {

bool notifyService(std::string_view state) {
    const char* name = std::getenv("NOTIFY_SOCKET"); // NOLINT(concurrency-mt-unsafe): one thread
    if (name == nullptr)
        return false;
    const std::size_t length = std::strlen(name);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (length < 2 || length > sizeof address.sun_path || (name[0] != '/' && name[0] != '@'))
        return false;
    std::memcpy(address.sun_path, name, length);
    if (name[0] == '@')
        address.sun_path[0] = '\0'; // an abstract name: no file, and its length ends it
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);

    const Fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket)
        return false;
    return ::sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr*>(&address), size) == static_cast<ssize_t>(state.size());
}

} // namespace Agent
