// Serves lines to clients: those of the control socket, or one on standard input and output.
//
// Every client gets one line answered per turn of the loop, in the order in which they became ready; answers
// to lines that a client sent together leave together. No client can hold up another or make the agent's
// memory grow: a line is at most lineLimit bytes, a client is not read from while an answer to it is unsent
// or owed, and one that lets notifications pile up is cut off.
//
// The handler is called from the loop only, never from inside another call to it. main() owns the server; the
// loop and the handler outlive it.
//
// Read next: Connection.h (buffers and input/output of one client), ControlSocket.h (the path), JsonRpc.h
// (the handler).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Agent {

class Connection;
class ControlSocket;
class EventLoop;
class Fd;

/// Names a client for the life of the server; never used again after it has gone.
using ClientId = std::uint64_t;

/// Why a client is closed with a last word to it.
enum class Refusal { lineTooLong, tooManyClients };

/// What answers the lines.
class LineHandler {
  public:
    virtual ~LineHandler() = default;

    /// Answers one line (without its newline, not blank): appends the answer to out, without a newline inside
    /// or after it; nothing for a line that wants no answer, or one that is answered later
    /// (LineServer::answerLater). Notifications sent meanwhile, even to the same client, leave before the
    /// answer. An exception ends the loop.
    virtual void answer(ClientId client, std::string_view line, std::string& out) = 0;

    /// Appends the text that tells a client why it is closed.
    virtual void refusal(Refusal reason, std::string& out) = 0;

    /// The client has gone, for whatever reason; called once, at the end of a turn.
    virtual void clientGone(ClientId client) = 0;
};

class LineServer {
  public:
    /// Bytes of a line without its newline. One more is refused and the client closed.
    static constexpr std::size_t lineLimit = 4U << 20U;
    /// Bytes of notifications that may wait for one client.
    static constexpr std::size_t notificationLimit = 8U << 20U;
    /// Clients at a time; one more is told so and closed.
    static constexpr std::size_t clientLimit = 256;
    /// Answers are held back for company, while more lines of the same client are there, up to so many bytes.
    static constexpr std::size_t batchBytes = 64U << 10U;

    LineServer(EventLoop& loop, LineHandler& handler);
    /// Sends what can be sent without waiting, closes all clients and the socket. clientGone is not called.
    ~LineServer();
    LineServer(const LineServer&) = delete;
    LineServer& operator=(const LineServer&) = delete;

    /// Serves all who connect to a Unix socket of that path.
    /// @throws std::runtime_error as ControlSocket does.
    void listen(const std::string& path);

    /// Serves one client on a pair of descriptors (standard input and output), which stay the caller's.
    /// Ignores SIGPIPE for the process from now on.
    /// @return its id; clientGone tells when the input has ended and all is answered.
    ClientId serve(int in, int out);

    /// Called by the handler while it answers a line of the client: the answer comes by answer(). Until then
    /// no further line of the client is served, and others are.
    void answerLater(ClientId client);
    /// The answer that was put off, as the handler would have given it; not from inside a call to the
    /// handler. Nothing happens when the client has gone.
    void answer(ClientId client, std::string text);

    /// Queues one line (without its newline) for a client; it leaves at the end of this turn.
    /// @return false when there is no such client, or it is cut off because too much waits for it already.
    bool notify(ClientId client, std::string_view line);

    /// Bytes that wait for a client; 0 when there is no such client.
    std::size_t unsent(ClientId client) const;
    /// Closes a client that has fallen too far behind, without a last word to it.
    void cutOff(ClientId client);

    std::size_t clients() const { return connections_.size(); }
    /// Clients cut off so far because notifications piled up.
    std::uint64_t cutOff() const { return cutOff_; }

  private:
    void acceptReady();
    void acceptLater();
    void clientAdd(Fd socket);
    void clientReady(Connection& connection, unsigned ready);
    void readFrom(Connection& connection);
    void serveLine(Connection& connection);
    void refuse(Connection& connection);
    void settle(Connection& connection);
    void settleLater(Connection& connection);
    void interestIs(Connection& connection);
    void drop(Connection& connection);
    bool turnEnds();
    void serveQueued();
    void flushNotified();
    void sweep();

    EventLoop& loop_;
    LineHandler& handler_;
    std::unique_ptr<ControlSocket> socket_;
    std::unordered_map<ClientId, std::unique_ptr<Connection>> connections_;
    std::vector<Connection*> queued_; // hold a complete line that was not their turn yet
    std::vector<Connection*> round_;  // queued_ of the turn under way
    std::vector<Connection*> unsent_; // were notified, or answered late, in this turn
    std::vector<ClientId> gone_;      // to be removed at the turn's end
    std::string answer_;              // kept for its memory
    ClientId lastClient_ = 0;
    std::uint64_t cutOff_ = 0;
    bool drained_ = false; // a client took all of the much that waited for it
    std::uint64_t hook_ = 0;
    std::uint64_t acceptTimer_ = 0;
    std::uint64_t answerTimer_ = 0; // sees to it that there is a turn at whose end a late answer leaves
};

} // namespace Agent
