#include "text/SocketPath.h"

#include <cstdlib>
#include <stdexcept>

namespace Text {

std::string defaultSocketPath(bool isRoot) {
    if (isRoot)
        return "/run/kestrel-nat.sock";
    const char* directory = std::getenv("XDG_RUNTIME_DIR");
    if (directory == nullptr || *directory == '\0')
        throw std::runtime_error("XDG_RUNTIME_DIR is not set: name the control socket with --socket");
    return std::string(directory) + "/kestrel-nat.sock";
}

} // namespace Text
