#include "agent/control/Sessions.h"

#include "agent/control/ControlSocket.h"
#include "agent/control/Session.h"

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <system_error>
#include <utility>

namespace Agent {

namespace {

using Clock = std::chrono::steady_clock;

// How many clients are let in per turn of the loop, at most.
constexpr int acceptsPerTurn = 32;
// How long no client is let in after the system had no descriptor for one.
constexpr std::chrono::milliseconds acceptPause{100};
// How long clients are served before the loop looks at what else there is, give or take one part of a line.
constexpr std::chrono::microseconds serviceTime{100};
// The same for sending what clients were notified of.
constexpr std::chrono::microseconds sendTime{300};
// Descriptors beside those of clients.
constexpr rlim_t otherDescriptors = 128;

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

bool isReadable(int fd) {
    pollfd wait{.fd = fd, .events = POLLIN, .revents = 0};
    return ::poll(&wait, 1, 0) > 0;
}

// Large buffers go back to the system as soon as they are freed.
void keepNoLargeBuffers() {
    ::mallopt(M_MMAP_THRESHOLD, 256 << 10);
    ::mallopt(M_TRIM_THRESHOLD, 1 << 20);
}

void raiseDescriptorLimit(rlim_t wanted) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= wanted)
        return;
    limit.rlim_cur = std::min(wanted, limit.rlim_max);
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

// Whether a client runs as the agent's user, or as root.
bool isOwn(const Fd& client) {
    ucred peer{};
    socklen_t length = sizeof peer;
    return ::getsockopt(client.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
           (peer.uid == ::geteuid() || peer.uid == 0);
}

} // namespace

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

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): chunk_ is written before it is read
Sessions::Sessions(asio::io_context& context, LineHandler& handler, std::size_t memoryLimit)
    : context_(context)
    , handler_(handler)
    , memoryLimit_(memoryLimit)
    , turnTask_(context, [this] { giveTurns(); })
    , sendTask_(context, [this] { sendNotified(); })
    , sweepTask_(context, [this] { sweep(); }) {
    std::signal(SIGPIPE, SIG_IGN);
    keepNoLargeBuffers();
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
    raiseDescriptorLimit(clientLimit + reservedPlaces + otherDescriptors);
    listener_ = std::make_shared<Listener>(context_, path);
    awaitClients();
}

void Sessions::awaitClients() {
    listener_->stream.async_wait(Stream::wait_read, unlessGone(listener_, [this] { letIn(); }));
}

void Sessions::letIn() {
    for (int i = 0; i < acceptsPerTurn; ++i) {
        Fd client(::accept4(listener_->socket.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (client) {
            letIn(std::move(client));
        } else if (!isShortage(errno) || !isReadable(listener_->socket.fd())) {
            break; // without descriptors left the system says so even when nobody comes
        } else if (!closeIdle()) {
            listener_->pause.expires_after(acceptPause);
            listener_->pause.async_wait(unlessGone(listener_, [this] { awaitClients(); }));
            return;
        }
    }
    awaitClients();
}

void Sessions::letIn(Fd client) {
    if (!hasPlaceFor(client))
        return turnAway(client);
    try {
        add(std::move(client), {});
    } catch (const std::bad_alloc&) {
        ++counters_.turnedAway;
    }
}

bool Sessions::hasPlaceFor(const Fd& client) {
    return clients() < clientLimit || closeIdle() ||
           (clients() < clientLimit + reservedPlaces && isOwn(client));
}

// Closes the client that has been idle for longest; false when none is.
bool Sessions::closeIdle() {
    Session* longest = nullptr;
    for (const auto& [id, session] : sessions_)
        if (!session->hasEnded() && !session->isKept && session->isIdle() &&
            (longest == nullptr || session->lastHeard < longest->lastHeard))
            longest = session.get();
    if (longest == nullptr)
        return false;
    ++counters_.idle;
    longest->refuse(TurnedAway::idle);
    longest->send();
    longest->end();
    return true;
}

void Sessions::turnAway(const Fd& client) {
    ++counters_.turnedAway;
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

void Sessions::wake(ClientId client) {
    if (Session* session = sessionOf(client))
        guard(*session, [&] { session->wake(); });
}

void Sessions::keep(ClientId client, bool isKept) {
    if (Session* session = sessionOf(client))
        session->isKept = isKept;
}

bool Sessions::notify(ClientId client, std::string_view line) {
    Session* session = sessionOf(client);
    if (session == nullptr)
        return false;
    guard(*session, [&] {
        if (!session->notify(line))
            cutOff(*session);
        account(*session);
    });
    if (session->hasEnded())
        return false;
    if (!std::exchange(session->isNotified, true)) {
        notified_.push_back(client);
        sendTask_.request();
    }
    return true;
}

void Sessions::sendNotified() {
    const auto begin = Clock::now();
    while (!notified_.empty() && Clock::now() - begin < sendTime) {
        if (Session* session = sessionOf(notified_.front())) {
            session->isNotified = false;
            guard(*session, [&] { session->proceed(); });
        }
        notified_.pop_front();
    }
    if (!notified_.empty())
        sendTask_.request();
}

std::size_t Sessions::unsent(ClientId client) const {
    const Session* session = sessionOf(client);
    return session == nullptr ? 0 : session->unsent();
}

void Sessions::want(Session& session, ClientId id) {
    turns_.want(id, session.use, Clock::now().time_since_epoch());
    turnTask_.request();
}

void Sessions::giveTurns() {
    const auto begin = Clock::now();
    auto now = begin;
    while (turns_.anyWaiting() && now - begin < serviceTime) {
        const ClientId id = turns_.next();
        Session* session = sessionOf(id);
        if (session == nullptr)
            continue;
        guard(*session, [&] {
            session->serve();
            session->proceed();
        });
        const auto end = Clock::now();
        turns_.used(session->use, end - std::exchange(now, end), end.time_since_epoch());
        if (session->wantsTurn())
            turns_.want(id, session->use, end.time_since_epoch());
    }
    if (turns_.anyWaiting())
        turnTask_.request();
}

// Takes note of what is held for a client, and keeps what is held for all within its limit.
void Sessions::account(Session& session) {
    const std::size_t bytes = session.hasEnded() ? 0 : session.bytes();
    memory_ += bytes - std::exchange(session.accounted, bytes);
    memoryMost_ = std::max(memoryMost_, memory_);
    while (memory_ > memoryLimit_) {
        const auto most =
            std::ranges::max_element(sessions_, {}, [](const auto& each) { return each.second->accounted; });
        cutOff(*most->second);
    }
}

void Sessions::cutOff(Session& session) {
    if (session.hasEnded())
        return;
    ++counters_.cutOff;
    session.end();
}

void Sessions::hasEnded(Session& session, ClientId id) {
    memory_ -= std::exchange(session.accounted, 0);
    ended_.push_back(id);
    sweepTask_.request();
}

void Sessions::sweep() {
    for (const ClientId id : std::exchange(ended_, {})) {
        sessions_.erase(id);
        handler_.clientGone(id);
    }
}

} // namespace Agent
