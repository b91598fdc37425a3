#include "agent/host/PostedTask.h"

#include <asio/io_context.hpp>
#include <asio/post.hpp>

#include <utility>

namespace Agent {

struct PostedTask::State {
    asio::io_context& context;
    std::function<void()> work;
    bool isRequested = false;
    bool isPosted = false;
};

PostedTask::PostedTask(asio::io_context& context, std::function<void()> work)
    : state_(std::make_shared<State>(State{.context = context, .work = std::move(work)})) {}

PostedTask::~PostedTask() {
    cancel();
}

void PostedTask::request() {
    state_->isRequested = true;
    if (std::exchange(state_->isPosted, true))
        return;
    asio::post(state_->context, [state = state_] {
        state->isPosted = false;
        if (std::exchange(state->isRequested, false))
            state->work();
    });
}

void PostedTask::cancel() {
    state_->isRequested = false;
}

} // namespace Agent
