#include "agent/EventLoop.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Agent {

struct EventLoop::Watch {
    int fd = -1;
    unsigned interest = 0;
    bool polled = true; // false: epoll doesn't take it, it is always ready
    bool live = true;
    FdCallback callback;
};

struct EventLoop::Signals {
    Fd fd;
    sigset_t before{};
};

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

epoll_event eventFor(unsigned interest, void* watch) {
    epoll_event event{};
    event.events = ((interest & EventLoop::readable) != 0 ? static_cast<unsigned>(EPOLLIN) : 0U) |
                   ((interest & EventLoop::writable) != 0 ? static_cast<unsigned>(EPOLLOUT) : 0U);
    event.data.ptr = watch;
    return event;
}

unsigned readyOf(unsigned events) {
    return ((events & EPOLLIN) != 0 ? EventLoop::readable : 0U) |
           ((events & EPOLLOUT) != 0 ? EventLoop::writable : 0U) |
           ((events & (EPOLLHUP | EPOLLERR)) != 0 ? EventLoop::hangup : 0U);
}

} // namespace

EventLoop::EventLoop()
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    if (!epoll_)
        fail("epoll_create1");
}

EventLoop::~EventLoop() {
    if (!signals_)
        return;
    // A signal that came while the agent was leaving asks for what is done already: it is taken before it
    // could end the process the hard way.
    signalfd_siginfo info{};
    while (::read(signals_->fd.get(), &info, sizeof info) > 0) {
    }
    ::pthread_sigmask(SIG_SETMASK, &signals_->before, nullptr);
}

void EventLoop::fdIs(int fd, unsigned interest, FdCallback callback) {
    auto watch = std::make_unique<Watch>();
    watch->fd = fd;
    watch->interest = interest;
    watch->callback = std::move(callback);
    epoll_event event = eventFor(interest, watch.get());
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
        if (errno != EPERM)
            fail("epoll_ctl: add");
        watch->polled = false;
        alwaysReady_.push_back(fd);
    }
    const auto index = static_cast<std::size_t>(fd);
    if (watches_.size() <= index)
        watches_.resize(index + 1);
    watches_[index] = std::move(watch);
}

void EventLoop::fdInterestIs(int fd, unsigned interest) {
    Watch* watch = watchAt(fd);
    if (watch == nullptr)
        throw std::logic_error("EventLoop: no watch for descriptor " + std::to_string(fd));
    if (watch->interest == interest)
        return;
    watch->interest = interest;
    if (!watch->polled)
        return;
    epoll_event event = eventFor(interest, watch);
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event) != 0)
        fail("epoll_ctl: modify");
}

void EventLoop::fdDel(int fd) {
    Watch* watch = watchAt(fd);
    if (watch == nullptr)
        return;
    if (watch->polled)
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
    else
        std::erase(alwaysReady_, fd);
    watch->live = false;
    retired_.push_back(std::move(watches_[static_cast<std::size_t>(fd)]));
}

EventLoop::Watch* EventLoop::watchAt(int fd) const {
    const auto index = static_cast<std::size_t>(fd);
    return fd >= 0 && index < watches_.size() ? watches_[index].get() : nullptr;
}

EventLoop::Timer EventLoop::timerIs(Clock::duration delay, Task task) {
    timers_.emplace(Clock::now() + delay, PendingTimer{.id = ++serial_, .task = std::move(task)});
    return serial_;
}

bool EventLoop::timerDel(Timer timer) {
    const auto found = std::find_if(timers_.begin(), timers_.end(),
                                    [timer](const auto& entry) { return entry.second.id == timer; });
    if (found == timers_.end())
        return false;
    timers_.erase(found);
    return true;
}

void EventLoop::defer(Task task) {
    deferred_.push_back(std::move(task));
}

bool EventLoop::runDeferred(std::size_t limit) {
    for (; !deferred_.empty() && limit > 0; --limit) {
        const Task task = std::move(deferred_.front());
        deferred_.pop_front();
        task();
    }
    return deferred_.empty();
}

std::uint64_t EventLoop::turnHookIs(TurnHook hook) {
    hooks_.emplace(++serial_, std::move(hook));
    return serial_;
}

void EventLoop::turnHookDel(std::uint64_t id) {
    hooks_.erase(id);
}

void EventLoop::signalsAre(std::initializer_list<int> signals, SignalCallback callback) {
    if (signals_)
        throw std::logic_error("EventLoop: signals are set already");
    auto state = std::make_unique<Signals>();
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals)
        sigaddset(&set, signal);
    state->fd = Fd(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!state->fd)
        fail("signalfd");
    const int fd = state->fd.get();
    fdIs(fd, readable, [fd, callback = std::move(callback)](unsigned /*ready*/) {
        signalfd_siginfo info{};
        if (::read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info))
            callback(static_cast<int>(info.ssi_signo));
    });
    ::pthread_sigmask(SIG_BLOCK, &set, &state->before);
    signals_ = std::move(state);
}

void EventLoop::run() {
    while (!stopped_) {
        ++turn_;
        dispatch(timeout());
        runTimers();
        runSlice();
        more_ = runHooks();
        retired_.clear();
    }
    stopped_ = false;
}

int EventLoop::timeout() const {
    const bool ready = std::any_of(alwaysReady_.begin(), alwaysReady_.end(),
                                   [this](int fd) { return watchAt(fd)->interest != 0; });
    if (more_ || ready || !deferred_.empty())
        return 0;
    if (timers_.empty())
        return -1;
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first - Clock::now());
    return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(wait.count(), 0, INT_MAX));
}

void EventLoop::dispatch(int timeoutMs) {
    std::array<epoll_event, 64> events; // NOLINT(cppcoreguidelines-pro-type-member-init): the kernel fills it
    const int count = ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), timeoutMs);
    if (count < 0 && errno != EINTR)
        fail("epoll_wait");
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        deliver(*static_cast<Watch*>(event.data.ptr), readyOf(event.events));
    }
    if (alwaysReady_.empty())
        return;
    for (const int fd : std::vector<int>(alwaysReady_)) {
        Watch* watch = watchAt(fd);
        if (watch != nullptr && !watch->polled && watch->interest != 0)
            deliver(*watch, watch->interest);
    }
}

void EventLoop::deliver(Watch& watch, unsigned ready) {
    if (watch.live)
        watch.callback(ready);
}

void EventLoop::runTimers() {
    if (timers_.empty())
        return;
    const auto now = Clock::now();
    while (!timers_.empty() && timers_.begin()->first <= now) {
        const auto due = timers_.extract(timers_.begin());
        due.mapped().task();
    }
}

void EventLoop::runSlice() {
    if (deferred_.empty())
        return;
    const auto end = Clock::now() + sliceTime;
    for (std::size_t left = std::min(deferred_.size(), sliceTasks); left > 0 && !deferred_.empty(); --left) {
        const Task task = std::move(deferred_.front());
        deferred_.pop_front();
        task();
        if (Clock::now() >= end)
            break;
    }
}

bool EventLoop::runHooks() {
    bool more = false;
    for (auto hook = hooks_.begin(); hook != hooks_.end();) {
        const std::uint64_t id = hook->first;
        more = hook->second() || more;
        hook = hooks_.upper_bound(id); // the hook may have removed others
    }
    return more;
}

} // namespace Agent
