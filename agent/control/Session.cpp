#include "agent/control/Session.h"

#include <asio/buffer.hpp>
#include <asio/io_context.hpp>

#include <algorithm>
#include <utility>

namespace Agent {

namespace {

// A buffer that grew beyond so many bytes is given back when it is empty.
constexpr std::size_t keptBytes = 16U << 10U;

void giveBack(std::string& buffer) {
    if (buffer.empty() && buffer.capacity() > keptBytes)
        buffer.shrink_to_fit();
}

bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

} // namespace

Sessions::Session::Session(Sessions& server, ClientId id, Fd in, Fd out)
    : use(server.turns_.join(std::chrono::steady_clock::now().time_since_epoch()))
    , server_(server)
    , id_(id)
    , in_(server.context_)
    , ownOut_(server.context_) {
    in_.assign(in.get());
    in.release();
    if (out) {
        ownOut_.assign(out.get());
        out.release();
        ownOut_.non_blocking(true);
    }
    in_.non_blocking(true);
}

void Sessions::Session::start() {
    // An output of its own tells when nobody can hear an answer any more; a socket does when it is read.
    if (ownOut_.is_open())
        ownOut_.async_wait(Stream::wait_error, [self = shared_from_this()](const asio::error_code& error) {
            if (!error)
                self->end();
        });
    awaitInput();
}

// Waits until there is something to read, or nothing any more; what can't be waited for is read at once.
void Sessions::Session::awaitInput() {
    isAwaiting_ = true;
    in_.async_wait(Stream::wait_read, [self = shared_from_this()](const asio::error_code& /*error*/) {
        self->isAwaiting_ = false;
        if (self->hasEnded_)
            return;
        self->isReadable_ = true;
        self->server_.guard(*self, [&] { self->proceed(); });
    });
}

// What the client said before its input ended is still answered, as to one that only closed its sending side.
void Sessions::Session::read() {
    isReadable_ = false;
    input_.erase(0, std::exchange(lineBegin_, 0));
    giveBack(input_);
    asio::error_code error;
    const std::size_t bytes = in_.read_some(asio::buffer(server_.chunk_), error);
    if (error == asio::error::would_block || error == asio::error::interrupted)
        return;
    hasInputEnded_ = error || bytes == 0;
    lastHeard = std::chrono::steady_clock::now();
    append({server_.chunk_.data(), bytes});
}

void Sessions::Session::append(std::string_view bytes) {
    const std::size_t held = input_.size();
    // A long line is not copied again and again while it grows: the system gives the memory as it is written to.
    if (held + bytes.size() > input_.capacity() && held >= batchBytes)
        input_.reserve(LineHandler::lineLimit + server_.chunk_.size());
    input_.append(bytes);
    if (!hasLine())
        lineEnd_ = input_.find('\n', held);
}

std::string_view Sessions::Session::takeLine() {
    const auto line = std::string_view(input_).substr(lineBegin_, lineEnd_ - lineBegin_);
    lineBegin_ = lineEnd_ + 1;
    lineEnd_ = input_.find('\n', lineBegin_);
    return line;
}

// The line that was taken, with the buffer that it is in; what came behind it is copied instead.
std::string Sessions::Session::takeBuffer(std::string_view line) {
    const auto begin = static_cast<std::size_t>(line.data() - input_.data());
    std::string rest = input_.substr(lineBegin_);
    std::string taken = std::exchange(input_, std::move(rest));
    taken.resize(begin + line.size());
    taken.erase(0, begin);
    lineEnd_ -= hasLine() ? lineBegin_ : 0;
    lineBegin_ = 0;
    return taken;
}

bool Sessions::Session::isOverlong() const {
    return std::min(lineEnd_, input_.size()) - lineBegin_ > LineHandler::lineLimit;
}

bool Sessions::Session::wantsTurn() const {
    return mayServe() && (progress_ == Progress::more || isReadable_ || (hasLine() && !isOverlong()));
}

void Sessions::Session::serve() {
    if (!mayServe())
        return;
    if (isReadable_)
        read();
    std::string answer;
    if (progress_ == Progress::more) {
        progress_ = server_.handler_.goOn(id_, answer);
    } else {
        std::string_view line;
        while (isBlank(line) && hasLine() && !isOverlong())
            line = takeLine();
        if (isBlank(line))
            return;
        if (line.size() > LineHandler::longLine) {
            progress_ = Progress::later;
            return server_.handler_.serveLong(id_, takeBuffer(line));
        }
        progress_ = server_.handler_.serve(id_, line, answer);
    }
    queue(std::move(answer));
}

void Sessions::Session::wake() {
    if (progress_ != Progress::later)
        return;
    progress_ = Progress::more;
    proceed();
}

void Sessions::Session::proceed() {
    if (hasEnded_)
        return;
    if (mayServe() && progress_ == Progress::done && isOverlong())
        refuse(TurnedAway::lineTooLong);
    const bool hasMore = wantsTurn();
    if (!isBlocked_ && (!hasMore || unsent() >= batchBytes))
        send();
    server_.account(*this);
    if (progress_ == Progress::later)
        heedHangup();
    if (hasEnded_ || isBlocked_ || progress_ == Progress::later)
        return;
    if (hasMore)
        server_.want(*this, id_);
    else if (hasInputEnded_ || isRefused_)
        end();
    else if (!isAwaiting_)
        awaitInput();
}

// A client that goes while it waits for an answer waits no more: what it asked for need not go on.
void Sessions::Session::heedHangup() {
    if (hasEnded_ || std::exchange(heedsHangup_, true))
        return;
    in_.async_wait(Stream::wait_error, [self = shared_from_this()](const asio::error_code& error) {
        self->heedsHangup_ = false;
        if (!error && self->progress_ == Progress::later)
            self->end();
    });
}

void Sessions::Session::refuse(TurnedAway reason) {
    output_.append(server_.handler_.refusal(reason)).push_back('\n');
    isRefused_ = true;
}

// Queues what is answered of the line that is under way; what ends empty is no answer.
void Sessions::Session::queue(std::string answer) {
    hasAnswerBegun_ = hasAnswerBegun_ || !answer.empty();
    if (output_.empty())
        output_ = std::move(answer);
    else
        output_ += answer;
    if (progress_ != Progress::done)
        return;
    if (std::exchange(hasAnswerBegun_, false))
        output_.push_back('\n');
    output_.append(held_);
    held_.clear();
    giveBack(held_);
}

bool Sessions::Session::notify(std::string_view line) {
    if (isRefused_)
        return true; // it hears its last word and no more
    // Whatever waits leaves in order, so of the last notified_ bytes queued at most unsent() are still there.
    if (std::min(notified_, unsent()) + line.size() + 1 > notificationLimit)
        return false;
    (hasAnswerBegun_ ? held_ : output_).append(line).push_back('\n');
    notified_ += line.size() + 1;
    return true;
}

void Sessions::Session::send() {
    while (sent_ < output_.size()) {
        asio::error_code error;
        sent_ += out().write_some(asio::buffer(output_.data() + sent_, output_.size() - sent_), error);
        if (error == asio::error::would_block)
            return sendWhenTaken();
        if (error && error != asio::error::interrupted)
            return end();
    }
    const bool hadMuch = std::exchange(isBlocked_, false) || output_.size() >= batchBytes;
    output_.clear();
    giveBack(output_);
    sent_ = notified_ = 0;
    if (hadMuch)
        server_.onRoom_();
}

void Sessions::Session::sendWhenTaken() {
    if (sent_ > output_.size() / 2)
        output_.erase(0, std::exchange(sent_, 0));
    isBlocked_ = true;
    out().async_wait(Stream::wait_write, [self = shared_from_this()](const asio::error_code& error) {
        if (self->hasEnded_)
            return;
        self->lastHeard = std::chrono::steady_clock::now();
        self->server_.guard(*self, [&] {
            error ? self->end() : self->send();
            self->proceed();
        });
    });
}

void Sessions::Session::end() {
    if (std::exchange(hasEnded_, true))
        return;
    asio::error_code ignored;
    in_.close(ignored);
    ownOut_.close(ignored);
    server_.hasEnded(*this, id_);
}

std::size_t Sessions::Session::bytes() const {
    const std::size_t handled = progress_ == Progress::done ? 0 : server_.handler_.bytesFor(id_);
    return input_.size() + output_.capacity() + held_.capacity() + handled;
}

} // namespace Agent
