// Work beside the loop, on one thread, one piece after the other: what takes long and touches nothing that the loop has.
// When nothing is left to do, freed memory goes back to the system: a thread's own heap keeps it otherwise.
//
// The application owns it. A forked child has the object but not the thread.
#pragma once

#include <functional>
#include <memory>

namespace asio {
class io_context;
}

namespace Agent {

class Worker {
  public:
    /// @param loop outlives it.
    /// @throws std::system_error when there can be no thread.
    explicit Worker(asio::io_context& loop);
    /// Waits for the piece of work at hand. What waits behind it is not done, and nothing more is told to the loop.
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// Has `work` done by the thread, which also destroys it, then `done` by the loop. No exception may leave `work`.
    void run(std::function<void()> work, std::function<void()> done);

  private:
    struct Thread;

    asio::io_context& loop_;
    std::shared_ptr<Thread> thread_;
};

} // namespace Agent
