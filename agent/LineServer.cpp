#include "agent/LineServer.h"

#include "agent/Connection.h"
#include "agent/ControlSocket.h"
#include "agent/EventLoop.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <utility>

namespace Agent {

namespace {

/// How many clients are let in per turn.
constexpr int acceptsPerTurn = 16;
/// How long no client is let in after the system had no descriptor for one.
constexpr std::chrono::milliseconds acceptPause{100};

bool blank(std::string_view line) {
    return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

} // namespace

LineServer::LineServer(EventLoop& loop, LineHandler& handler)
    : loop_(loop)
    , handler_(handler)
    , hook_(loop.turnHookIs([this] { return turnEnds(); })) {}

LineServer::~LineServer() {
    loop_.turnHookDel(hook_);
    if (socket_)
        loop_.fdDel(socket_->fd());
    loop_.timerDel(acceptTimer_);
    loop_.timerDel(answerTimer_);
    for (const auto& [id, connection] : connections_) {
        if (connection->serving.dead)
            continue;
        connection->send();
        drop(*connection);
    }
}

void LineServer::listen(const std::string& path) {
    socket_ = std::make_unique<ControlSocket>(path);
    loop_.fdIs(socket_->fd(), EventLoop::readable, [this](unsigned /*ready*/) { acceptReady(); });
}

void LineServer::acceptReady() {
    for (int i = 0; i < acceptsPerTurn; ++i) {
        Fd client(::accept4(socket_->fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (client) {
            clientAdd(std::move(client));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            acceptLater();
            return;
        } else if (errno != ECONNABORTED && errno != EINTR) {
            return;
        }
    }
}

void LineServer::acceptLater() {
    loop_.fdInterestIs(socket_->fd(), 0);
    acceptTimer_ =
        loop_.timerIs(acceptPause, [this] { loop_.fdInterestIs(socket_->fd(), EventLoop::readable); });
}

void LineServer::clientAdd(Fd socket) {
    if (connections_.size() >= clientLimit) {
        std::string text;
        handler_.refusal(Refusal::tooManyClients, text);
        text.push_back('\n');
        ::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return;
    }
    const ClientId id = ++lastClient_;
    Connection& connection =
        *connections_.emplace(id, std::make_unique<Connection>(id, std::move(socket))).first->second;
    connection.serving.interest = EventLoop::readable;
    loop_.fdIs(connection.in(), EventLoop::readable,
               [this, &connection](unsigned ready) { clientReady(connection, ready); });
}

ClientId LineServer::serve(int in, int out) {
    std::signal(SIGPIPE, SIG_IGN); // only sockets can be written without that signal
    const ClientId id = ++lastClient_;
    Connection& connection =
        *connections_.emplace(id, std::make_unique<Connection>(id, in, out)).first->second;
    connection.serving.interest = EventLoop::readable;
    loop_.fdIs(connection.in(), EventLoop::readable,
               [this, &connection](unsigned ready) { clientReady(connection, ready); });
    if (connection.out() == connection.in())
        return id;
    loop_.fdIs(connection.out(), 0, [this, &connection](unsigned ready) {
        if ((ready & EventLoop::hangup) != 0)
            drop(connection); // nobody can hear an answer any more
        else
            clientReady(connection, ready);
    });
    return id;
}

void LineServer::clientReady(Connection& connection, unsigned ready) {
    Connection::Serving& serving = connection.serving;
    if ((ready & EventLoop::writable) != 0)
        settle(connection);
    const bool wants =
        !serving.dead && !serving.closing && !serving.inputEnded && !serving.blocked && !serving.owed;
    if (wants && (ready & (EventLoop::readable | EventLoop::hangup)) != 0 && !connection.hasLine())
        readFrom(connection);
}

void LineServer::readFrom(Connection& connection) {
    switch (connection.receive()) {
    case Connection::Received::nothing:
        return;
    case Connection::Received::end:
        // What the client said before is still answered, as to one that only closed its sending side.
        connection.serving.inputEnded = true;
        if (connection.in() != connection.out())
            loop_.fdDel(connection.in());
        break;
    case Connection::Received::data:
        if (connection.serving.turn != loop_.turn() && connection.hasLine() && !connection.overlong())
            serveLine(connection);
        break;
    }
    settle(connection);
}

void LineServer::serveLine(Connection& connection) {
    connection.serving.turn = loop_.turn();
    std::string_view line = connection.takeLine();
    while (blank(line)) {
        if (!connection.hasLine() || connection.overlong())
            return;
        line = connection.takeLine();
    }
    answer_.clear();
    handler_.answer(connection.id(), line, answer_);
    if (!answer_.empty() && !connection.serving.dead)
        connection.queueAnswer(answer_);
}

void LineServer::refuse(Connection& connection) {
    answer_.clear();
    handler_.refusal(Refusal::lineTooLong, answer_);
    connection.queueAnswer(answer_);
    connection.serving.closing = true;
}

/// Brings a connection on after something happened to it: sends what is to be sent now, queues it if it has
/// another line, lets it go if nothing is left to do for it.
void LineServer::settle(Connection& connection) {
    Connection::Serving& serving = connection.serving;
    if (serving.dead)
        return;
    if (!serving.closing && !serving.owed && connection.overlong())
        refuse(connection);
    const bool more = !serving.closing && !serving.owed && connection.hasLine();
    if (connection.unsent() > 0 && (!more || serving.blocked || connection.unsent() >= batchBytes)) {
        const bool isMuch = connection.unsent() >= batchBytes;
        const Connection::Sent sent = connection.send();
        if (sent == Connection::Sent::broken) {
            drop(connection);
            return;
        }
        serving.blocked = sent == Connection::Sent::part;
        drained_ = drained_ || (isMuch && !serving.blocked);
    }
    if (more && !serving.blocked && !serving.queued) {
        serving.queued = true;
        queued_.push_back(&connection);
    }
    if ((serving.inputEnded || serving.closing) && !more && !serving.owed && connection.unsent() == 0)
        drop(connection);
    else
        interestIs(connection);
}

void LineServer::interestIs(Connection& connection) {
    Connection::Serving& serving = connection.serving;
    unsigned interest = EventLoop::readable;
    if (serving.blocked)
        interest = EventLoop::writable;
    else if (serving.inputEnded || serving.closing || serving.owed)
        interest = 0;
    if (interest == serving.interest)
        return;
    serving.interest = interest;
    if (connection.in() == connection.out()) {
        loop_.fdInterestIs(connection.in(), interest);
        return;
    }
    if (!serving.inputEnded)
        loop_.fdInterestIs(connection.in(), interest & EventLoop::readable);
    loop_.fdInterestIs(connection.out(), interest & EventLoop::writable);
}

void LineServer::answerLater(ClientId client) {
    connections_.at(client)->serving.owed = true;
}

void LineServer::answer(ClientId client, std::string text) {
    const auto found = connections_.find(client);
    if (found == connections_.end() || found->second->serving.dead)
        return;
    Connection& connection = *found->second;
    connection.serving.owed = false;
    connection.queueAnswer(text);
    settleLater(connection);
    if (answerTimer_ == 0)
        answerTimer_ = loop_.timerIs({}, [this] { answerTimer_ = 0; });
}

bool LineServer::notify(ClientId client, std::string_view line) {
    const auto found = connections_.find(client);
    if (found == connections_.end() || found->second->serving.dead || found->second->serving.closing)
        return false;
    Connection& connection = *found->second;
    if (connection.notificationsFull(line.size() + 1)) {
        cutOff(client);
        return false;
    }
    connection.queueNotification(line);
    settleLater(connection);
    return true;
}

void LineServer::settleLater(Connection& connection) {
    if (!std::exchange(connection.serving.notified, true))
        unsent_.push_back(&connection);
}

std::size_t LineServer::unsent(ClientId client) const {
    const auto found = connections_.find(client);
    return found == connections_.end() ? 0 : found->second->unsent();
}

void LineServer::cutOff(ClientId client) {
    const auto found = connections_.find(client);
    if (found != connections_.end() && !found->second->serving.dead) {
        ++cutOff_;
        drop(*found->second);
    }
}

void LineServer::drop(Connection& connection) {
    if (std::exchange(connection.serving.dead, true))
        return;
    loop_.fdDel(connection.in());
    loop_.fdDel(connection.out());
    connection.close();
    gone_.push_back(connection.id());
}

bool LineServer::turnEnds() {
    serveQueued();
    do {
        sweep();
        flushNotified();
    } while (!gone_.empty());
    // Who holds notifications back while much waits for a client gets a turn in which to go on.
    return std::exchange(drained_, false) || !queued_.empty();
}

void LineServer::serveQueued() {
    round_.swap(queued_);
    for (Connection* connection : round_) {
        Connection::Serving& serving = connection->serving;
        serving.queued = false;
        if (serving.dead)
            continue;
        if (serving.turn != loop_.turn() && !serving.blocked)
            serveLine(*connection);
        settle(*connection);
    }
    round_.clear();
}

void LineServer::flushNotified() {
    for (std::size_t i = 0; i < unsent_.size(); ++i) {
        unsent_[i]->serving.notified = false;
        settle(*unsent_[i]);
    }
    unsent_.clear();
}

void LineServer::sweep() {
    for (std::size_t i = 0; i < gone_.size(); ++i) {
        const ClientId id = gone_[i];
        const Connection* connection = connections_.at(id).get();
        std::erase(queued_, connection);
        std::erase(unsent_, connection);
        connections_.erase(id);
        handler_.clientGone(id);
    }
    gone_.clear();
}

} // namespace Agent
