#include "agent/control/Sessions.h"

#include "agent/control/ControlSocket.h"

#include <asio/buffer.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/basic_stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <system_error>
#include <utility>

namespace Agent {

namespace {

// Sockets, pipes, terminals and files are one to it. Only writes wait for readiness: what can't be waited for
// (a file) never makes them wait.
using Stream = asio::posix::basic_stream_descriptor<asio::io_context::executor_type>;

// How many clients are let in per turn, at most.
constexpr int acceptsPerTurn = 16;
// How long no client is let in after the system had no descriptor for one.
constexpr std::chrono::milliseconds acceptPause{100};
// A buffer that grew beyond so many bytes is given back when it is empty.
constexpr std::size_t keptBytes = 256U << 10U;

void giveBack(std::string& buffer) {
    if (buffer.empty() && buffer.capacity() > keptBytes)
        buffer.shrink_to_fit();
}

bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

// What completes a wait: the work, unless the wait failed or who waited has gone.
template <class Owner, class Work>
auto unlessGone(const std::shared_ptr<Owner>& owner, Work work) {
    return [owner = std::weak_ptr(owner), work](const asio::error_code& error) {
        if (!error && !owner.expired())
            work();
    };
}

bool isShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

} // namespace

// One client: what it sends is cut into lines, the handler serves one of them a turn, and what is said to the
// client leaves as far as it takes it without waiting.
//
// It reads only when nothing is owed to the client: no line unserved, no answer unsent or put off. Answers
// are held back for company while more lines are there; notifications leave in order with them.
//
// Operations of the loop that are under way for it share it; once it has ended it touches its server no more.
class Sessions::Session : public std::enable_shared_from_this<Session> {
  public:
    // Reads and writes `in` alone if `out` is none. @throws std::system_error
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): chunk_ is written before it is read
    Session(Sessions& server, ClientId id, Fd in, Fd out)
        : server_(server)
        , id_(id)
        , in_(server.context_)
        , ownOut_(server.context_)
        , turn_(server.context_, [this] { turn(); }) {
        in_.assign(in.get());
        in.release();
        if (out) {
            ownOut_.assign(out.get());
            out.release();
        }
        this->out().non_blocking(true);
    }

    // Begins to read.
    void start() {
        // An output of its own tells when nobody can hear an answer any more; a socket does when it is read.
        if (ownOut_.is_open())
            ownOut_.async_wait(Stream::wait_error,
                               [self = shared_from_this()](const asio::error_code& error) {
                                   if (!error)
                                       self->end();
                               });
        read();
    }

    // Ends the line that the handler did not finish.
    void finish(std::string answer) {
        if (!std::exchange(isOwed_, false))
            return;
        queue(std::move(answer));
        turn_.request();
    }

    // Queues one line; it leaves on a turn of its own. False when too much waits already.
    bool notify(std::string_view line) {
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

    // Sends what is queued as far as it goes without waiting, and the rest when it goes; ends when the client
    // can't be reached any more.
    void send() {
        while (unsent() > 0) {
            asio::error_code error;
            sent_ += out().write_some(asio::buffer(output_.data() + sent_, unsent()), error);
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

    // Closes it, with what is unsent, and has it swept.
    void end() {
        if (std::exchange(hasEnded_, true))
            return;
        turn_.cancel();
        asio::error_code ignored;
        in_.close(ignored);
        ownOut_.close(ignored);
        server_.ended_.push_back(id_);
        server_.sweep_.request();
    }

    bool hasEnded() const { return hasEnded_; }
    std::size_t unsent() const { return output_.size() - sent_; }

  private:
    Stream& out() { return ownOut_.is_open() ? ownOut_ : in_; }
    bool mayServe() const { return !isBlocked_ && !isOwed_ && !isRefused_; }
    bool hasLine() const { return lineEnd_ != std::string::npos; }
    bool isOverlong() const {
        return std::min(lineEnd_, input_.size()) - lineBegin_ > LineHandler::lineLimit;
    }

    void read() {
        isReading_ = true;
        input_.erase(0, std::exchange(lineBegin_, 0));
        giveBack(input_);
        in_.async_read_some(asio::buffer(chunk_),
                            [self = shared_from_this()](const asio::error_code& error, std::size_t bytes) {
                                if (!self->hasEnded_)
                                    self->received(error ? 0 : bytes);
                            });
    }

    // @param bytes 0: nothing will come any more. What the client said before is still answered, as to one
    // that only closed its sending side.
    void received(std::size_t bytes) {
        isReading_ = false;
        hasInputEnded_ = bytes == 0;
        const std::size_t held = input_.size();
        input_.append(chunk_.data(), bytes);
        lineEnd_ = input_.find('\n', held);
        turn();
    }

    std::string_view takeLine() {
        const auto line = std::string_view(input_).substr(lineBegin_, lineEnd_ - lineBegin_);
        lineBegin_ = lineEnd_ + 1;
        lineEnd_ = input_.find('\n', lineBegin_);
        return line;
    }

    // Serves a line, if one is there and may be served.
    void turn() {
        std::string_view line;
        while (isBlank(line) && mayServe() && hasLine() && !isOverlong())
            line = takeLine();
        if (!isBlank(line)) {
            auto answer = server_.handler_.serve(id_, line);
            isOwed_ = !answer;
            queue(std::move(answer).value_or(""));
        }
        proceed();
    }

    // Goes on after something happened: sends what is to be sent now, then waits for what comes next.
    void proceed() {
        if (hasEnded_)
            return;
        if (mayServe() && isOverlong()) {
            queue(server_.handler_.refusal(TurnedAway::lineTooLong));
            isRefused_ = true;
        }
        const bool hasMore = mayServe() && hasLine();
        if (!isBlocked_ && (!hasMore || unsent() >= batchBytes))
            send();
        if (hasEnded_ || isBlocked_ || isOwed_)
            return;
        if (hasMore)
            turn_.request();
        else if (hasInputEnded_ || isRefused_)
            end();
        else if (!isReading_)
            read();
    }

    // Queues an answer; an empty one is none.
    void queue(std::string answer) {
        if (answer.empty())
            return;
        answer.push_back('\n');
        if (output_.empty())
            output_ = std::move(answer);
        else
            output_ += answer;
    }

    void sendWhenTaken() {
        if (sent_ > output_.size() / 2)
            output_.erase(0, std::exchange(sent_, 0));
        isBlocked_ = true;
        out().async_wait(Stream::wait_write, [self = shared_from_this()](const asio::error_code& error) {
            if (self->hasEnded_)
                return;
            error ? self->end() : self->send();
            self->proceed();
        });
    }

    Sessions& server_;
    const ClientId id_;
    Stream in_;
    Stream ownOut_;
    PostedTask turn_;
    std::array<char, 64U << 10U> chunk_; // what is read at once
    std::string input_;
    std::size_t lineBegin_ = 0;               // of the next line in input_
    std::size_t lineEnd_ = std::string::npos; // its newline, if that is there
    std::string output_;
    std::size_t sent_ = 0;     // of output_
    std::size_t notified_ = 0; // bytes of notifications since output_ was last empty

    bool isReading_ = false;
    bool isBlocked_ = false; // the client doesn't take what is sent
    bool isOwed_ = false;    // its last line is answered later
    bool isRefused_ = false; // ends when its last word is sent
    bool hasInputEnded_ = false;
    bool hasEnded_ = false;
};

struct Sessions::Listener {
    Listener(asio::io_context& context, const std::string& path)
        : socket(path)
        , stream(context, socket.fd())
        , pause(context) {}
    ~Listener() { stream.release(); }

    ControlSocket socket;
    Stream stream;
    asio::steady_timer pause;
};

Sessions::Sessions(asio::io_context& context, LineHandler& handler)
    : context_(context)
    , handler_(handler)
    , sweep_(context, [this] { sweep(); }) {
    std::signal(SIGPIPE, SIG_IGN);
}

Sessions::~Sessions() {
    for (const auto& [id, session] : sessions_) {
        session->send();
        session->end();
    }
    for (const KeptFlags& kept : keptFlags_)
        ::fcntl(kept.fd, F_SETFL, kept.flags);
}

void Sessions::listen(const std::string& path) {
    listener_ = std::make_shared<Listener>(context_, path);
    awaitClients();
}

void Sessions::awaitClients() {
    listener_->stream.async_wait(Stream::wait_read, unlessGone(listener_, [this] { letIn(); }));
}

void Sessions::letIn() {
    for (int i = 0; i < acceptsPerTurn; ++i) {
        Fd client(::accept4(listener_->socket.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (client && sessions_.size() < LineHandler::clientLimit) {
            add(std::move(client), {});
        } else if (client) {
            turnAway(client);
        } else if (!isShortage(errno)) {
            break;
        } else {
            listener_->pause.expires_after(acceptPause);
            listener_->pause.async_wait(unlessGone(listener_, [this] { awaitClients(); }));
            return;
        }
    }
    awaitClients();
}

void Sessions::turnAway(const Fd& client) {
    const std::string text = handler_.refusal(TurnedAway::tooManyClients) + "\n";
    ::send(client.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

ClientId Sessions::add(Fd in, Fd out) {
    const ClientId id = ++lastClient_;
    auto session = std::make_shared<Session>(*this, id, std::move(in), std::move(out));
    session->start();
    sessions_.emplace(id, std::move(session));
    return id;
}

ClientId Sessions::serve(int in, int out) {
    if (in == out)
        return add(ownDescriptor(in, O_RDWR), {});
    Fd input = ownDescriptor(in, O_RDONLY);
    return add(std::move(input), ownDescriptor(out, O_WRONLY));
}

// A descriptor of our own for one that stays the caller's. It is not waited on, which is a flag that others
// see who share what is open (standard error, the shell): pipes and terminals are opened once more, of what
// can't be the flags are put back in the end.
Fd Sessions::ownDescriptor(int fd, int access) {
    struct stat status {};
    if (::fstat(fd, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode))) {
        const std::string name = "/proc/self/fd/" + std::to_string(fd);
        if (Fd again(::open(name.c_str(), access | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)); again)
            return again;
    }
    keptFlags_.push_back({.fd = fd, .flags = ::fcntl(fd, F_GETFL)});
    Fd again(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (!again)
        throw std::system_error(errno, std::generic_category(), "standard input or output");
    return again;
}

Sessions::Session* Sessions::sessionOf(ClientId client) const {
    const auto found = sessions_.find(client);
    return found == sessions_.end() || found->second->hasEnded() ? nullptr : found->second.get();
}

void Sessions::finish(ClientId client, std::string answer) {
    if (Session* session = sessionOf(client))
        session->finish(std::move(answer));
}

bool Sessions::notify(ClientId client, std::string_view line) {
    Session* session = sessionOf(client);
    if (session == nullptr)
        return false;
    if (session->notify(line))
        return true;
    cutOff(client);
    return false;
}

std::size_t Sessions::unsent(ClientId client) const {
    const Session* session = sessionOf(client);
    return session == nullptr ? 0 : session->unsent();
}

void Sessions::cutOff(ClientId client) {
    if (Session* session = sessionOf(client)) {
        ++cutOffCount_;
        session->end();
    }
}

void Sessions::sweep() {
    for (const ClientId id : std::exchange(ended_, {})) {
        sessions_.erase(id);
        handler_.clientGone(id);
    }
}

} // namespace Agent
