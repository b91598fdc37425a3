#include "agent/ServiceNotify.h"

#include <asio/buffer.hpp>
#include <asio/io_context.hpp>
#include <asio/local/datagram_protocol.hpp>

#include <cstdlib>
#include <exception>
#include <string>

namespace Agent {

bool notifyService(std::string_view state) {
    const char* given = std::getenv("NOTIFY_SOCKET"); // NOLINT(concurrency-mt-unsafe): one thread
    std::string name = given == nullptr ? "" : given;
    if (name.size() < 2 || (name[0] != '/' && name[0] != '@'))
        return false;
    if (name[0] == '@')
        name[0] = '\0'; // an abstract name, of no file
    try {
        asio::io_context loop;
        asio::local::datagram_protocol::socket socket(loop, asio::local::datagram_protocol());
        return socket.send_to(asio::buffer(state), {name}) == state.size();
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace Agent
