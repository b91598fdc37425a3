#include "agent/Connection.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <utility>

namespace Agent {

namespace {

mode_t kindOf(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 ? status.st_mode & S_IFMT : 0;
}

/// A pipe or terminal opened once more, so that it can be written without waiting while those who share the
/// original (standard error, the shell) see no change of its flags. Nothing where that can't be: then writing
/// may wait.
Fd reopened(int fd) {
    const std::string name = "/proc/self/fd/" + std::to_string(fd);
    return Fd(::open(name.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

} // namespace

Connection::Connection(ClientId id, Fd socket)
    : id_(id)
    , own_(std::move(socket))
    , in_(own_.get())
    , out_(own_.get()) {}

Connection::Connection(ClientId id, int in, int out)
    : id_(id)
    , in_(in)
    , out_(out)
    , inSocket_(kindOf(in) == S_IFSOCK)
    , outSocket_(kindOf(out) == S_IFSOCK) {
    if (const mode_t kind = kindOf(out); kind == S_IFIFO || kind == S_IFCHR) {
        ownOut_ = reopened(out);
        if (ownOut_)
            out_ = ownOut_.get();
    }
}

Connection::Received Connection::receive() {
    makeRoom();
    char* to = input_.get() + end_;
    const std::size_t room = capacity_ - end_;
    const ssize_t count = inSocket_ ? ::recv(in_, to, room, MSG_DONTWAIT) : ::read(in_, to, room);
    if (count > 0) {
        end_ += static_cast<std::size_t>(count);
        return Received::data;
    }
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return Received::nothing;
    return Received::end;
}

void Connection::makeRoom() {
    const std::size_t held = end_ - begin_;
    if (held == 0) {
        begin_ = end_ = scanned_ = 0;
        if (capacity_ == smallBuffer)
            return;
        capacity_ = smallBuffer;
        input_.reset(new char[capacity_]); // NOLINT(modernize-avoid-c-arrays)
        return;
    }
    if (end_ + smallBuffer / 2 <= capacity_)
        return;
    if (held + smallBuffer / 2 <= capacity_) {
        std::memmove(input_.get(), input_.get() + begin_, held);
    } else {
        capacity_ = std::min(std::max(capacity_ * 2, smallBuffer), largestBuffer);
        std::unique_ptr<char[]> grown(new char[capacity_]); // NOLINT(modernize-avoid-c-arrays)
        std::memcpy(grown.get(), input_.get() + begin_, held);
        input_ = std::move(grown);
    }
    scanned_ -= begin_;
    begin_ = 0;
    end_ = held;
}

std::size_t Connection::lineEnd() {
    if (scanned_ == end_)
        return end_;
    const void* newline = std::memchr(input_.get() + scanned_, '\n', end_ - scanned_);
    scanned_ = newline == nullptr
                   ? end_
                   : static_cast<std::size_t>(static_cast<const char*>(newline) - input_.get());
    return scanned_;
}

bool Connection::hasLine() {
    return lineEnd() != end_;
}

bool Connection::overlong() {
    return lineEnd() - begin_ > LineServer::lineLimit;
}

std::string_view Connection::takeLine() {
    const std::size_t end = lineEnd();
    const std::string_view line(input_.get() + begin_, end - begin_);
    begin_ = scanned_ = end + 1;
    return line;
}

void Connection::queueAnswer(std::string& text) {
    text.push_back('\n');
    if (output_.empty())
        output_.swap(text);
    else
        output_ += text;
}

void Connection::queueNotification(std::string_view line) {
    output_ += line;
    output_.push_back('\n');
    notified_ += line.size() + 1;
}

bool Connection::notificationsFull(std::size_t bytes) const {
    // Whatever waits leaves in order, so of the last notified_ bytes queued at most unsent() are still there.
    return std::min(notified_, unsent()) + bytes > LineServer::notificationLimit;
}

Connection::Sent Connection::send() {
    while (sent_ < output_.size()) {
        const char* from = output_.data() + sent_;
        const ssize_t count = outSocket_ ? ::send(out_, from, unsent(), MSG_NOSIGNAL | MSG_DONTWAIT)
                                         : ::write(out_, from, unsent());
        if (count >= 0) {
            sent_ += static_cast<std::size_t>(count);
        } else if (errno == EAGAIN) {
            if (sent_ > output_.size() / 2) {
                output_.erase(0, sent_);
                sent_ = 0;
            }
            return Sent::part;
        } else if (errno != EINTR) {
            return Sent::broken;
        }
    }
    output_.clear();
    if (output_.capacity() > keptOutput)
        output_.shrink_to_fit();
    sent_ = notified_ = 0;
    return Sent::all;
}

void Connection::close() {
    own_.close();
    ownOut_.close();
}

} // namespace Agent
