// Serves lines to clients: those of the control socket, or one on standard input and output.
//
// Every client gets one line served per turn of the loop, in the order in which they became ready; answers to
// lines that a client sent together leave together. No client can hold up another or make the agent's memory
// grow: a line is at most LineHandler::lineLimit bytes, a client is not read from while an answer to it is
// unsent or owed, and one that lets notifications pile up is cut off.
//
// The application owns it; the loop and the handler outlive it. All calls come from the loop's thread. A
// forked child must not touch it.
//
// Read next: ControlSocket.h (the path), JsonRpc.h (what answers).
#pragma once

#include "agent/host/Fd.h"
#include "agent/host/PostedTask.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Agent {

/// Names a client for the life of the server; never used again after it has gone.
using ClientId = std::uint64_t;

/// Why a client is closed with a last word to it.
enum class TurnedAway { lineTooLong, tooManyClients };

/// What answers the lines. Sessions calls it, from the loop only and never from inside another call to it.
class LineHandler {
  public:
    /// Bytes of a line without its newline. One more is refused and the client closed.
    static constexpr std::size_t lineLimit = 4U << 20U;
    /// Clients at a time; one more is told so and closed.
    static constexpr std::size_t clientLimit = 256;

    virtual ~LineHandler() = default;

    /// Serves one line (without its newline, not blank). Notifications sent meanwhile, even to the same client,
    /// leave before the answer. An exception ends the loop.
    /// @return the answer, without a newline inside or after it; empty for a line that wants none. Nothing when it
    /// comes later, by Sessions::finish: no further line of the client is served until then.
    virtual std::optional<std::string> serve(ClientId client, std::string_view line) = 0;

    /// The text that tells a client why it is closed.
    virtual std::string refusal(TurnedAway reason) = 0;

    /// The client has gone, for whatever reason; called once, on a turn of the loop of its own.
    virtual void clientGone(ClientId client) = 0;
};

class Sessions {
  public:
    /// Bytes of notifications that may wait for one client.
    static constexpr std::size_t notificationLimit = 8U << 20U;
    /// Answers are held back for company up to so many bytes; what waits beyond them is much.
    static constexpr std::size_t batchBytes = 64U << 10U;

    /// Ignores SIGPIPE for the process from now on.
    Sessions(asio::io_context& context, LineHandler& handler);
    /// Sends what can be sent without waiting, closes all clients and the socket. clientGone is not called.
    ~Sessions();
    Sessions(const Sessions&) = delete;
    Sessions& operator=(const Sessions&) = delete;

    /// Serves all who connect to a Unix socket of that path.
    /// @throws std::runtime_error as ControlSocket does.
    void listen(const std::string& path);

    /// Serves one client on a pair of descriptors (standard input and output), which stay the caller's and
    /// open.
    /// @return its id; clientGone tells when the input has ended and all is answered.
    /// @throws std::system_error when the system has no descriptors for it.
    ClientId serve(int in, int out);

    /// Ends a line that the handler did not finish, with its answer as the handler would have given it; not
    /// from inside LineHandler::serve. Nothing happens when the client has gone.
    void finish(ClientId client, std::string answer);

    /// Queues one line (without its newline) for a client; it leaves on the next turn.
    /// @return false when there is no such client, or it is cut off because too much waits for it already.
    bool notify(ClientId client, std::string_view line);

    /// Bytes that wait for a client; 0 when there is no such client.
    std::size_t unsent(ClientId client) const;
    /// Called when a client has taken all, after much waited for it: who held notifications back may go on. It is
    /// called from inside other work: it may do no more than note it.
    void onRoom(std::function<void()> callback) { onRoom_ = std::move(callback); }

    /// Closes a client that has fallen too far behind, without a last word to it.
    void cutOff(ClientId client);

    std::size_t clients() const { return sessions_.size(); }
    /// Clients cut off so far.
    std::uint64_t cutOffCount() const { return cutOffCount_; }

  private:
    class Session;
    struct Listener;
    struct KeptFlags {
        int fd;
        int flags;
    };

    void awaitClients();
    void letIn();
    void turnAway(const Fd& client);
    ClientId add(Fd in, Fd out);
    Fd ownDescriptor(int fd, int access);
    Session* sessionOf(ClientId client) const;
    void sweep();

    asio::io_context& context_;
    LineHandler& handler_;
    std::function<void()> onRoom_ = [] {};
    PostedTask sweep_; // some have ended
    std::shared_ptr<Listener> listener_;
    std::unordered_map<ClientId, std::shared_ptr<Session>> sessions_;
    std::vector<ClientId> ended_;      // since the last sweep
    std::vector<KeptFlags> keptFlags_; // of descriptors that are shared with others, as they were
    ClientId lastClient_ = 0;
    std::uint64_t cutOffCount_ = 0;
};

} // namespace Agent
