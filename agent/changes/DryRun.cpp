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
#include <cstdio>
#include <cstring>
#include <exception>
#include <system_error>

namespace Agent {

namespace {

constexpr unsigned limitSeconds = 10;

std::string contentOf(const Fd& file) {
    std::string text(static_cast<std::size_t>(std::max<off_t>(::lseek(file.get(), 0, SEEK_END), 0)), '\0');
    const ssize_t count = ::pread(file.get(), text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return text;
}

// Puts the text in place of what has been said.
bool tell(std::string_view text) {
    return ::ftruncate(STDERR_FILENO, 0) == 0 &&
           ::pwrite(STDERR_FILENO, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

[[noreturn]] void beChild(const std::function<std::string()>& work, const Fd& said) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::prctl(PR_SET_DUMPABLE, 0);
    std::signal(SIGALRM, SIG_DFL);
    ::alarm(limitSeconds);
    ::dup2(said.get(), STDERR_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    dropLastWords();
    State::traceSinkIs([](void*, const State::TraceRecord&) {}, nullptr);
    State::traceRingIs({});
    int status = 1;
    try {
        status = tell(work()) ? 0 : 1;
    } catch (const std::exception& error) {
        std::fputs(error.what(), stderr);
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
    const Fd said(::memfd_create("dry run", MFD_CLOEXEC)); // it outlives the child
    const pid_t child = said ? ::fork() : -1;
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), said ? "fork" : "memfd_create");
    if (child == 0)
        beChild(work, said);

    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
        throw Refusal(RefusalKind::limit, "the dry run took more than " + std::to_string(limitSeconds) +
                                              " seconds and was ended");
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return {.told = contentOf(said), .fatal = {}};
    return {.told = {}, .fatal = endText(contentOf(said), status)};
}

} // namespace Agent
