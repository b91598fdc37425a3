#include "agent/control/Session.h"

#include <asio/buffer.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/basic_stream_descriptor.hpp>

#include <algorithm>
#include <utility>

namespace Agent {

namespace {

// Sockets, pipes, terminals and files are one to it. Only writes wait for readiness: what can't be waited for
// (a file) never makes them wait.
using Stream = asio::posix::basic_stream_descriptor<asio::io_context::executor_type>;

bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

void take(Stream& stream, Fd fd) {
    stream.assign(fd.get());
    fd.release();
}

} // namespace

struct Session::Streams {
    Streams(asio::io_context& context, Fd inFd, Fd outFd)
        : in(context)
        , ownOut(context) {
        take(in, std::move(inFd));
        if (outFd)
            take(ownOut, std::move(outFd));
        out().non_blocking(true);
    }
    Stream& out() { return ownOut.is_open() ? ownOut : in; }

    Stream in;
    Stream ownOut;
};

Session::Session(asio::io_context& context, Shared& shared, ClientId id, Fd in, Fd out)
    : shared_(shared)
    , id_(id)
    , streams_(std::make_unique<Streams>(context, std::move(in), std::move(out)))
    , turn_(context, [this] {
        const auto keep = shared_from_this();
        turn();
    }) {}

Session::~Session() = default;

void Session::start() {
    if (streams_->ownOut.is_open())
        watchOutput();
    read();
}

/// Ends when nobody can hear an answer any more. A socket that is read, too, tells of that by itself.
void Session::watchOutput() {
    streams_->ownOut.async_wait(Stream::wait_error,
                                [self = shared_from_this()](const asio::error_code& error) {
                                    if (!error)
                                        self->end();
                                });
}

void Session::read() {
    isReading_ = true;
    const std::span<char> room = input_.room();
    streams_->in.async_read_some(
        asio::buffer(room.data(), room.size()),
        [self = shared_from_this()](const asio::error_code& error, std::size_t bytes) {
            if (!self->hasEnded_)
                self->received(error ? 0 : bytes);
        });
}

/// @param bytes 0: nothing will come any more. What the client said before is still answered, as to one that
/// only closed its sending side.
void Session::received(std::size_t bytes) {
    isReading_ = false;
    input_.filled(bytes);
    hasInputEnded_ = bytes == 0;
    turn();
}

void Session::turn() {
    if (mayServe() && input_.hasLine() && !input_.isOverlong())
        serveLine();
    proceed();
}

void Session::serveLine() {
    std::string_view line = input_.takeLine();
    while (isBlank(line)) {
        if (!input_.hasLine() || input_.isOverlong())
            return;
        line = input_.takeLine();
    }
    std::string& answer = shared_.answer;
    answer.clear();
    isOwed_ = !shared_.handler.serve(id_, line, answer);
    if (isOwed_ || answer.empty())
        return;
    answer.push_back('\n');
    if (output_.empty())
        output_.swap(answer);
    else
        output_ += answer;
}

void Session::refuse() {
    shared_.handler.refusal(TurnedAway::lineTooLong, output_);
    output_.push_back('\n');
    isRefused_ = true;
}

/// Goes on after something happened: sends what is to be sent now, then waits for what comes next.
void Session::proceed() {
    if (hasEnded_)
        return;
    if (mayServe() && input_.isOverlong())
        refuse();
    const bool hasMore = mayServe() && input_.hasLine();
    if (!isBlocked_ && (!hasMore || unsent() >= batchBytes) && !send()) {
        end();
        return;
    }
    if (isBlocked_ || isOwed_)
        return;
    if (hasMore)
        turn_.request();
    else if (hasInputEnded_ || isRefused_)
        end();
    else if (!isReading_)
        read();
}

bool Session::send() {
    hadMuch_ = hadMuch_ || unsent() >= batchBytes;
    while (unsent() > 0) {
        asio::error_code error;
        sent_ += streams_->out().write_some(asio::buffer(output_.data() + sent_, unsent()), error);
        if (error == asio::error::would_block) {
            sendWhenTaken();
            return true;
        }
        if (error && error != asio::error::interrupted)
            return false;
    }
    output_.clear();
    if (output_.capacity() > keptOutput)
        output_.shrink_to_fit();
    sent_ = notified_ = 0;
    if (std::exchange(hadMuch_, false))
        shared_.room.request();
    return true;
}

void Session::sendWhenTaken() {
    if (sent_ > output_.size() / 2)
        output_.erase(0, std::exchange(sent_, 0));
    isBlocked_ = true;
    streams_->out().async_wait(Stream::wait_write,
                               [self = shared_from_this()](const asio::error_code& error) {
                                   if (self->hasEnded_)
                                       return;
                                   self->isBlocked_ = false;
                                   if (!error && self->send())
                                       self->proceed();
                                   else
                                       self->end();
                               });
}

void Session::finish(std::string_view answer) {
    if (!std::exchange(isOwed_, false))
        return;
    if (!answer.empty())
        output_.append(answer).push_back('\n');
    turn_.request();
}

bool Session::notify(std::string_view line) {
    if (isRefused_)
        return true; // it hears its last word and no more
    // Whatever waits leaves in order, so of the last notified_ bytes queued at most unsent() are still there.
    if (std::min(notified_, unsent()) + line.size() + 1 > notificationLimit)
        return false;
    output_.append(line).push_back('\n');
    notified_ += line.size() + 1;
    turn_.request();
    return true;
}

void Session::end() {
    if (std::exchange(hasEnded_, true))
        return;
    turn_.cancel();
    asio::error_code ignored;
    streams_->in.close(ignored);
    streams_->ownOut.close(ignored);
    shared_.ended.push_back(id_);
    shared_.sweep.request();
}

} // namespace Agent
