#include "agent/host/Worker.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>

#include <malloc.h>

#include <atomic>
#include <utility>

namespace Agent {

struct Worker::Thread {
    asio::thread_pool pool{1};
    std::atomic<unsigned> pieces{0}; // of work that are not done
};

Worker::Worker(asio::io_context& loop)
    : loop_(loop)
    , thread_(std::make_shared<Thread>()) {}

Worker::~Worker() {
    thread_->pool.stop();
    thread_->pool.join();
}

void Worker::run(std::function<void()> work, std::function<void()> done) {
    ++thread_->pieces;
    // The loop goes on while it is owed something.
    asio::post(thread_->pool,
               [work = std::move(work), done = std::move(done), thread = thread_.get(),
                alive = std::weak_ptr(thread_), owed = asio::make_work_guard(loop_)]() mutable {
                   std::exchange(work, nullptr)();
                   asio::post(owed.get_executor(), [done = std::move(done), alive = std::move(alive)] {
                       if (!alive.expired())
                           done();
                   });
                   if (--thread->pieces == 0)
                       ::malloc_trim(0);
               });
}

} // namespace Agent
