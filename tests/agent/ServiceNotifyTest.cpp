// Telling the service manager, over both kinds of socket name.
#include "agent/ServiceNotify.h"

#include "agent/host/Fd.h"
#include "tests/agent/TestClient.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

namespace AgentTest {
namespace {

/// A service manager's socket; a name that begins with '@' is an abstract one.
Agent::Fd managerAt(const std::string& name) {
    Agent::Fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@')
        address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), size), 0);
    return socket;
}

TEST(ServiceNotify, ReachesTheManagerThatAskedAndNobodyElse) {
    const TemporaryFolder folder;
    const std::string file = folder.file("manager");
    const auto notifies = [](const std::string& name) {
        ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
        const bool notified = Agent::notifyService("READY=1");
        ::unsetenv("NOTIFY_SOCKET");
        return notified;
    };
    for (const std::string& name : {file, "@" + file}) {
        const Agent::Fd manager = managerAt(name);
        EXPECT_TRUE(notifies(name));
        std::array<char, 64> received{};
        EXPECT_EQ(::recv(manager.get(), received.data(), received.size(), MSG_DONTWAIT), 7);
        EXPECT_STREQ(received.data(), "READY=1");
    }
    for (const char* name : {"", "relative", "/absent/manager"})
        EXPECT_FALSE(notifies(name)) << name;
    EXPECT_FALSE(notifies("/" + std::string(sizeof(sockaddr_un), 'x')));
    EXPECT_FALSE(Agent::notifyService("READY=1"));
}

} // namespace
} // namespace AgentTest
