#include "bench/AgentProcess.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace Bench {

AgentProcess::AgentProcess(const std::string& socket) {
    std::array<int, 2> out{};
    if (::pipe(out.data()) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    process_ = ::fork();
    if (process_ < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (process_ == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        ::close(out[0]);
        ::close(out[1]);
        ::execl(KESTREL_BIN_DIR "/kestrel-agent", "kestrel-agent", "--socket", socket.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(out[1]);
    std::array<char, 64> said{};
    const ssize_t count = ::read(out[0], said.data(), said.size());
    ::close(out[0]);
    if (count <= 0 || std::string_view(said.data(), static_cast<std::size_t>(count)) != "ready\n") {
        ::kill(process_, SIGKILL);
        ::waitpid(process_, nullptr, 0);
        throw std::runtime_error("the agent did not become ready");
    }
}

AgentProcess::~AgentProcess() {
    ::kill(process_, SIGTERM);
    ::waitpid(process_, nullptr, 0);
}

} // namespace Bench
