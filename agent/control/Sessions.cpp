#include "agent/control/Sessions.h"

#include "agent/control/ControlSocket.h"

#include <asio/io_context.hpp>
#include <asio/posix/basic_stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <system_error>
#include <utility>

namespace Agent {

namespace {

/// How many clients are let in per turn.
constexpr int acceptsPerTurn = 16;
/// How long no client is let in after the system had no descriptor for one.
constexpr std::chrono::milliseconds acceptPause{100};

bool isShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

} // namespace

/// The operations of the loop refer to it weakly: one that completes after the server has gone does nothing.
struct Sessions::Listener {
    Listener(asio::io_context& context, const std::string& path)
        : socket(path)
        , stream(context, socket.fd())
        , pause(context, acceptPause) {}
    ~Listener() { stream.release(); }

    ControlSocket socket;
    asio::posix::basic_stream_descriptor<asio::io_context::executor_type> stream;
    asio::steady_timer pause;
};

Sessions::Sessions(asio::io_context& context, LineHandler& handler)
    : context_(context)
    , shared_{.handler = handler,
              .sweep = PostedTask(context, [this] { sweep(); }),
              .room = PostedTask(context, [this] {
                  if (onRoom_)
                      onRoom_();
              })} {
    std::signal(SIGPIPE, SIG_IGN);
}

Sessions::~Sessions() {
    for (const auto& [id, session] : sessions_) {
        if (session->hasEnded())
            continue;
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
    listener_->stream.async_wait(asio::posix::descriptor_base::wait_read,
                                 [this, listener = std::weak_ptr(listener_)](const asio::error_code& error) {
                                     if (!error && !listener.expired())
                                         acceptReady();
                                 });
}

void Sessions::acceptReady() {
    for (int i = 0; i < acceptsPerTurn; ++i) {
        Fd client(::accept4(listener_->socket.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (client) {
            admit(std::move(client));
        } else if (isShortage(errno)) {
            listener_->pause.expires_after(acceptPause);
            listener_->pause.async_wait(
                [this, listener = std::weak_ptr(listener_)](const asio::error_code& error) {
                    if (!error && !listener.expired())
                        awaitClients();
                });
            return;
        } else if (errno != ECONNABORTED && errno != EINTR) {
            break;
        }
    }
    awaitClients();
}

void Sessions::admit(Fd socket) {
    if (sessions_.size() < LineHandler::clientLimit) {
        add(std::move(socket), {});
        return;
    }
    std::string text;
    shared_.handler.refusal(TurnedAway::tooManyClients, text);
    text.push_back('\n');
    ::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

ClientId Sessions::add(Fd in, Fd out) {
    const ClientId id = ++lastClient_;
    auto session = std::make_shared<Session>(context_, shared_, id, std::move(in), std::move(out));
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

/// A descriptor of our own for one that stays the caller's. It is not waited on, which is a flag that others
/// see who share what is open (standard error, the shell): pipes and terminals are opened once more, of what
/// can't be the flags are put back in the end.
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

Session* Sessions::sessionOf(ClientId client) const {
    const auto found = sessions_.find(client);
    return found == sessions_.end() || found->second->hasEnded() ? nullptr : found->second.get();
}

void Sessions::finish(ClientId client, std::string_view answer) {
    if (Session* session = sessionOf(client))
        session->finish(answer);
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
    for (const ClientId id : std::exchange(shared_.ended, {})) {
        sessions_.erase(id);
        shared_.handler.clientGone(id);
    }
}

} // namespace Agent
