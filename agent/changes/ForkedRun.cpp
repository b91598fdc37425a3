#include "agent/changes/ForkedRun.h"

#include "agent/host/Fd.h"
#include "agent/host/LastWords.h"
#include "state/Trace.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <system_error>
#include <utility>

namespace Agent {

namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe2");
        read = Fd(ends[0]);
        write = Fd(ends[1]);
    }
    Fd read;
    Fd write;
};

bool writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(fd, text.data(), text.size());
        if (count < 0 && errno != EINTR)
            return false;
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return true;
}

void isolate(int resultFd, int errorFd, int resultTo) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::prctl(PR_SET_DUMPABLE, 0);
    ::dup2(errorFd, STDERR_FILENO);
    ::dup2(resultFd, resultTo);
    ::close_range(static_cast<unsigned>(resultTo) + 1, ~0U, 0);
    dropLastWords();
    State::traceSinkIs([](void*, const State::TraceRecord&) {}, nullptr);
    State::traceRingIs({});
}

[[noreturn]] void beChild(const std::function<std::string()>& work, int resultFd, int errorFd) {
    constexpr int resultTo = STDERR_FILENO + 1;
    isolate(resultFd, errorFd, resultTo);
    int status = 1;
    try {
        status = writeAll(resultTo, work()) ? 0 : 1;
    } catch (const std::exception& error) {
        writeAll(STDERR_FILENO, error.what());
    }
    ::_exit(status);
}

// Reads both pipes until the child has closed them; false when the time ran out.
bool readBoth(const Fd& first, std::string& firstText, const Fd& second, std::string& secondText,
              Clock::time_point deadline) {
    std::array<pollfd, 2> waits{pollfd{first.get(), POLLIN, 0}, pollfd{second.get(), POLLIN, 0}};
    const std::array<std::string*, 2> texts{&firstText, &secondText};
    while (waits[0].fd >= 0 || waits[1].fd >= 0) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return false;
        if (::poll(waits.data(), waits.size(), static_cast<int>(left.count())) <= 0)
            continue;
        for (std::size_t i = 0; i < waits.size(); ++i) {
            if (waits[i].fd < 0 || waits[i].revents == 0)
                continue;
            std::array<char, 65536> block; // NOLINT(cppcoreguidelines-pro-type-member-init)
            const ssize_t count = ::read(waits[i].fd, block.data(), block.size());
            if (count > 0)
                texts[i]->append(block.data(), static_cast<std::size_t>(count));
            else if (count == 0 || errno != EINTR)
                waits[i].fd = -1;
        }
    }
    return true;
}

std::string endText(std::string said, int status) {
    while (!said.empty() && said.back() == '\n')
        said.pop_back();
    if (!said.empty())
        return said;
    return WIFSIGNALED(status) ? std::string("ended by signal ") + ::strsignal(WTERMSIG(status))
                               : "ended with status " + std::to_string(WEXITSTATUS(status));
}

} // namespace

ForkedResult runForked(const std::function<std::string()>& work, std::chrono::milliseconds limit) {
    Pipe result;
    Pipe error;
    const Clock::time_point deadline = Clock::now() + limit;
    const pid_t child = ::fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0)
        beChild(work, result.write.get(), error.write.get());
    result.write.close();
    error.write.close();

    std::string text;
    std::string said;
    const bool inTime = readBoth(result.read, text, error.read, said, deadline);
    if (!inTime)
        ::kill(child, SIGKILL);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return {.result = std::move(text), .end = {}};
    return {.result = {}, .end = endText(std::move(said), status), .isOverdue = !inTime};
}

} // namespace Agent
