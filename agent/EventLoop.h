// The agent's one thread: it waits for descriptors, timers and signals, and runs what was put off to the next
// turn.
//
// One turn is: wait; callbacks of the ready descriptors; timers that are due; a slice of the deferred tasks;
// the turn hooks. A slice is bounded in number and time, so that control clients are served between two
// slices however much was deferred.
//
// main() owns the loop and it outlives everything that registers here. All calls come from the loop's thread,
// and may come from inside any callback. An exception that leaves a callback leaves run(). A forked child
// shares the kernel's half of the loop with its parent: it must not call the loop and must leave by _exit.
//
// Read next: LineServer.h, the largest user.
#pragma once

#include "agent/Fd.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <vector>

namespace Agent {

class EventLoop {
  public:
    using Clock = std::chrono::steady_clock;
    using Task = std::function<void()>;
    using FdCallback = std::function<void(unsigned ready)>;
    using TurnHook = std::function<bool()>;
    using SignalCallback = std::function<void(int signal)>;

    /// Bits of an interest (readable, writable) and of what a callback is told. hangup is told without being
    /// asked for: the other side has gone, or the descriptor is in error.
    static constexpr unsigned readable = 1;
    static constexpr unsigned writable = 2;
    static constexpr unsigned hangup = 4;

    /// One slice of deferred work in a turn: at most so many tasks, and no new one after so long.
    static constexpr std::size_t sliceTasks = 1024;
    static constexpr std::chrono::milliseconds sliceTime{2};

    /// Names a timer; 0 names none.
    using Timer = std::uint64_t;

    /// @throws std::system_error when the kernel refuses the descriptors.
    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    /// Watches a descriptor that is not watched yet, level-triggered. The caller keeps it open until fdDel.
    /// What can't be waited for (a regular file) counts as ready in every turn.
    /// @throws std::system_error when the kernel refuses the descriptor.
    void fdIs(int fd, unsigned interest, FdCallback callback);

    /// Changes the interest of a watched descriptor; with 0 only hangup is told.
    void fdInterestIs(int fd, unsigned interest);

    /// Ends the watch; call it before the descriptor is closed. Events already fetched are not delivered any
    /// more.
    void fdDel(int fd);

    /// Runs task once, not before delay has passed (to the millisecond, rounded up).
    Timer timerIs(Clock::duration delay, Task task);

    /// @return false when the timer ran already or was removed.
    bool timerDel(Timer timer);

    /// Puts task off to a slice of deferred work: this turn's, unless called from that slice, else the next
    /// turn's. Tasks run in the order in which they came.
    void defer(Task task);

    /// Runs all deferred work now, with what it defers in turn. For callers that need it settled, such as
    /// `expect`.
    /// @param limit tasks after which to give up, against tasks that defer themselves without end.
    /// @return whether nothing is left.
    bool runDeferred(std::size_t limit = 1'000'000);

    /// Calls hook at the end of every turn; it returns whether it has more to do, in which case the loop
    /// doesn't sleep.
    /// @return the id for turnHookDel, never 0.
    std::uint64_t turnHookIs(TurnHook hook);
    void turnHookDel(std::uint64_t id);

    /// Blocks the given signals and hands them to callback from the loop, until the loop goes. Once per loop,
    /// before any thread is started.
    void signalsAre(std::initializer_list<int> signals, SignalCallback callback);

    /// Runs turns until stop(). The turn in which stop() is called is completed.
    void run();
    void stop() { stopped_ = true; }

    /// The number of the turn; 0 before the first.
    std::uint64_t turn() const { return turn_; }

  private:
    struct Watch;
    struct PendingTimer {
        Timer id;
        Task task;
    };

    void dispatch(int timeoutMs);
    void deliver(Watch& watch, unsigned ready);
    void runTimers();
    void runSlice();
    bool runHooks();
    int timeout() const;
    Watch* watchAt(int fd) const;

    Fd epoll_;
    std::vector<std::unique_ptr<Watch>> watches_; // by descriptor
    std::vector<std::unique_ptr<Watch>> retired_; // removed in this turn; their callback may be on the stack
    std::vector<int> alwaysReady_;
    std::multimap<Clock::time_point, PendingTimer> timers_;
    std::deque<Task> deferred_;
    std::map<std::uint64_t, TurnHook> hooks_;
    struct Signals;
    std::unique_ptr<Signals> signals_;
    std::uint64_t serial_ = 0;
    std::uint64_t turn_ = 0;
    bool more_ = false; // a hook asked not to sleep
    bool stopped_ = false;
};

} // namespace Agent
