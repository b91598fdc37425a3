#include "agent/changes/DryRun.h"

#include "agent/host/Fd.h"
#include "agent/host/LastWords.h"
#include "state/Trace.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <sstream>
#include <utility>

namespace Agent {

namespace {

constexpr int refusedStatus = 2; // of a child that says a refusal

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

// Texts stand behind their lengths; of a number that may be absent, the next one stands there, or 0.
std::string packed(const Refusal& refusal) {
    std::ostringstream out;
    const auto text = [&](const std::string& part) { out << part.size() << ' ' << part << ' '; };
    const auto number = [&](std::optional<std::size_t> part) { out << (part ? *part + 1 : 0) << ' '; };
    const Where& where = refusal.where();
    out << static_cast<unsigned>(refusal.kind()) << ' ';
    text(refusal.what());
    for (const std::string* part :
         {&where.path, &where.attribute, &where.field, &where.expected, &where.actual})
        text(*part);
    for (const auto& part : {where.index, where.line, where.word})
        number(part);
    return out.str();
}

Refusal unpacked(const std::string& said) {
    std::istringstream in(said);
    const auto number = [&] {
        std::size_t part = 0;
        in >> part;
        return part;
    };
    const auto text = [&] {
        std::string part(std::min(number(), said.size()), '\0');
        in.get();
        in.read(part.data(), static_cast<std::streamsize>(part.size()));
        return part;
    };
    const auto kind = static_cast<RefusalKind>(number());
    const std::string message = text();
    Where where;
    for (std::string* part : {&where.path, &where.attribute, &where.field, &where.expected, &where.actual})
        *part = text();
    for (std::optional<std::size_t>* part : {&where.index, &where.line, &where.word})
        if (const std::size_t next = number(); next != 0)
            *part = next - 1;
    return {kind, message, where};
}

[[noreturn]] void beChild(const DryRuns::Work& work, const Fd& said) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::prctl(PR_SET_DUMPABLE, 0);
    std::signal(SIGALRM, SIG_DFL);
    ::alarm(DryRuns::limitSeconds);
    ::dup2(said.get(), STDERR_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    dropLastWords();
    State::traceSinkIs([](void*, const State::TraceRecord&) {}, nullptr);
    State::traceRingIs({});
    int status = 1;
    try {
        status = tell(work()) ? 0 : 1;
    } catch (const Refusal& refusal) {
        status = tell(packed(refusal)) ? refusedStatus : 1;
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

DryRunResult refused(const std::string& message) {
    return {.told = {}, .refused = Refusal(RefusalKind::limit, message)};
}

DryRunResult resultOf(const Fd& said, int status) {
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
        return refused("the dry run took more than " + std::to_string(DryRuns::limitSeconds) +
                       " seconds and was ended");
    const int exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    if (exitStatus == refusedStatus)
        return {.told = {}, .refused = unpacked(contentOf(said))};
    if (exitStatus == 0)
        return {.told = contentOf(said), .refused = {}};
    return {.told = {}, .refused = {}, .fatal = endText(contentOf(said), status)};
}

} // namespace

struct DryRuns::Run {
    Run(std::uint64_t given, Work toDo, Done toHear)
        : owner(given)
        , work(std::move(toDo))
        , done(std::move(toHear)) {}
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;
    ~Run() {
        if (child < 0)
            return;
        ::kill(child, SIGKILL);
        static_cast<void>(reaped());
    }
    int reaped() {
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        child = -1;
        return status;
    }

    std::uint64_t owner;
    Work work; // until it begins
    Done done; // until the owner has gone
    pid_t child = -1;
    Fd said; // it outlives the child
    std::optional<asio::posix::stream_descriptor> end;
};

DryRuns::DryRuns(asio::io_context& context)
    : context_(context) {}

DryRuns::~DryRuns() = default;

void DryRuns::run(std::uint64_t owner, Work work, Done done) {
    const auto goesOn = [owner](const auto& run) { return run->owner == owner && run->done; };
    if (std::ranges::any_of(runs_, goesOn))
        throw Refusal(RefusalKind::limit, "another dry run of this client goes on");
    runs_.push_back(std::make_shared<Run>(owner, std::move(work), std::move(done)));
    startNext();
}

void DryRuns::forget(std::uint64_t owner) {
    for (auto at = runs_.begin(); at != runs_.end();) {
        Run& run = **at;
        const bool waits = run.child < 0;
        if (run.owner == owner) {
            run.done = nullptr;
            if (!waits)
                ::kill(run.child, SIGKILL); // its end is heard of later
        }
        at = run.owner == owner && waits ? runs_.erase(at) : std::next(at);
    }
}

void DryRuns::startNext() {
    const auto waits = [](const auto& run) { return run->child < 0; };
    while (true) {
        const auto next = std::ranges::find_if(runs_, waits);
        if (next == runs_.end() || std::ranges::count_if(runs_, std::not_fn(waits)) >= std::ptrdiff_t{atOnce})
            return;
        const std::shared_ptr<Run> run = *next;
        if (!start(run))
            finish(run, refused(std::string("no dry run can be made now: ") + std::strerror(errno)));
    }
}

// @return false: errno says why not.
bool DryRuns::start(const std::shared_ptr<Run>& run) {
    run->said = Fd(::memfd_create("dry run", MFD_CLOEXEC));
    if (!run->said)
        return false;
    const pid_t child = ::fork();
    if (child < 0)
        return false;
    if (child == 0)
        beChild(run->work, run->said);
    run->child = child;
    run->work = nullptr;
    Fd end(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    if (!end)
        return false;
    run->end.emplace(context_, end.release());
    run->end->async_wait(asio::posix::stream_descriptor::wait_read,
                         [this, awaited = std::weak_ptr(run)](const asio::error_code& /*error*/) {
                             const std::shared_ptr<Run> ended = awaited.lock();
                             if (!ended)
                                 return;
                             finish(ended, resultOf(ended->said, ended->reaped()));
                             startNext();
                         });
    return true;
}

void DryRuns::finish(const std::shared_ptr<Run>& run, const DryRunResult& result) {
    runs_.remove(run);
    if (run->done)
        run->done(result);
}

} // namespace Agent
