#include "agent/changes/DryRun.h"

#include "agent/host/Fd.h"
#include "agent/host/LastWords.h"
#include "agent/host/Refusal.h"
#include "state/Trace.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <system_error>

namespace Agent {

namespace {

constexpr unsigned limitSeconds = 10;

// A file in memory, which outlives the child that writes it.
Fd makeFile() {
    Fd file(::memfd_create("dry run", MFD_CLOEXEC));
    if (!file)
        throw std::system_error(errno, std::generic_category(), "memfd_create");
    return file;
}

std::string contentOf(const Fd& file) {
    std::string text(static_cast<std::size_t>(std::max<off_t>(::lseek(file.get(), 0, SEEK_END), 0)), '\0');
    const ssize_t count = ::pread(file.get(), text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return text;
}

bool write(int fd, std::string_view text) {
    return ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

[[noreturn]] void beChild(const std::function<std::string()>& work, const Fd& result, const Fd& error) {
    constexpr int resultTo = STDERR_FILENO + 1;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::prctl(PR_SET_DUMPABLE, 0);
    std::signal(SIGALRM, SIG_DFL);
    ::alarm(limitSeconds);
    ::dup2(error.get(), STDERR_FILENO);
    ::dup2(result.get(), resultTo);
    ::close_range(static_cast<unsigned>(resultTo) + 1, ~0U, 0);
    dropLastWords();
    State::traceSinkIs([](void*, const State::TraceRecord&) {}, nullptr);
    State::traceRingIs({});
    int status = 1;
    try {
        status = write(resultTo, work()) ? 0 : 1;
    } catch (const std::exception& failure) {
        write(STDERR_FILENO, failure.what());
    }
    ::_exit(status);
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

DryRunResult runDry(const std::function<std::string()>& work) {
    const Fd result = makeFile();
    const Fd error = makeFile();
    const pid_t child = ::fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0)
        beChild(work, result, error);

    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
        throw Refusal(RefusalKind::limit, "the dry run took more than " + std::to_string(limitSeconds) +
                                              " seconds and was ended");
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return {.told = contentOf(result), .fatal = {}};
    return {.told = {}, .fatal = endText(contentOf(error), status)};
}

} // namespace Agent
