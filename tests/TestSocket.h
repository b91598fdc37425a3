// What tests of sockets share: a folder that goes with the test, and a socket that is bound to a name.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

class TemporaryFolder {
  public:
    TemporaryFolder()
        : path_((std::filesystem::temp_directory_path() / "kestrel-test-XXXXXX").string()) {
        if (::mkdtemp(path_.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), path_);
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

/// The descriptor of a Unix socket with that name, whose caller closes it; '@' begins an abstract name.
/// @param type SOCK_STREAM or SOCK_DGRAM
inline int boundSocket(int type, const std::string& name) {
    const int bound = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@')
        address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    if (::bind(bound, reinterpret_cast<const sockaddr*>(&address), size) != 0)
        throw std::system_error(errno, std::generic_category(), name);
    return bound;
}
