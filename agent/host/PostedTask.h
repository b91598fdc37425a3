// Work that is done once on a turn of its own of the loop, however often it was asked for before that.
//
// Whoever does the work owns the task and may let go of it at any time, also from inside the work. The loop's
// other callbacks run between two turns of it, so work that asks for itself again holds nobody up.
#pragma once

#include <functional>
#include <memory>

namespace asio {
class io_context;
}

namespace Agent {

class PostedTask {
  public:
    /// @param context must be there when request() is called.
    PostedTask(asio::io_context& context, std::function<void()> work);
    /// What was asked for is not done any more.
    ~PostedTask();
    PostedTask(const PostedTask&) = delete;
    PostedTask& operator=(const PostedTask&) = delete;

    /// Has the work done soon, by the loop; from inside the work once more. What leaves the work as an
    /// exception leaves the loop.
    void request();
    /// Takes the request back.
    void cancel();

  private:
    struct State;
    std::shared_ptr<State> state_; // the loop has it too while it is posted
};

} // namespace Agent
