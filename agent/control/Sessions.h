// Serves lines to clients: those of the control socket, or one on standard input and output.
//
// No client can hold up another or make the agent's memory grow. Clients take turns (Turns.h), in which a line or a part
// of one is served; answers to lines that a client sent together leave together. A line is at most LineHandler::lineLimit
// bytes, a client is not read from while an answer to it is unsent or owed, and one that lets notifications pile up is
// cut off. What is held for all clients together has a limit: beyond it the one for whom most is held is cut off. When
// all places are taken, one that has been idle goes for one that comes.
//
// The application owns it; the loop and the handler outlive it. All calls come from the loop's thread. A
// forked child must not touch it.
//
// Read next: ControlSocket.h (the path), Session.h (one client), JsonRpc.h (what answers).
#pragma once

#include "agent/control/LineHandler.h"
#include "agent/control/Turns.h"
#include "agent/host/Fd.h"
#include "agent/host/PostedTask.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Agent {

class Sessions {
  public:
    /// Clients at a time. One more has an idle one closed, or is told so and closed.
    static constexpr std::size_t clientLimit = 1024;
    /// As many more of the agent's own user, and of root, where nobody is idle.
    static constexpr std::size_t reservedPlaces = 16;
    /// Bytes of notifications that may wait for one client.
    static constexpr std::size_t notificationLimit = 8U << 20U;
    /// Answers are held back for company up to so many bytes; what waits beyond them is much.
    static constexpr std::size_t batchBytes = 64U << 10U;
    /// Bytes that are held for all clients together, unless told otherwise.
    static constexpr std::size_t defaultMemoryLimit = 64U << 20U;

    /// From now on the process ignores SIGPIPE and gives large buffers back to the system when they are freed.
    /// @param memoryLimit bytes that may be held for all clients together.
    Sessions(asio::io_context& context, LineHandler& handler, std::size_t memoryLimit = defaultMemoryLimit);
    /// Sends what can be sent without waiting, closes all clients and the socket. clientGone is not called.
    ~Sessions();
    Sessions(const Sessions&) = delete;
    Sessions& operator=(const Sessions&) = delete;

    /// Serves all who connect to a Unix socket of that path. Raises the process's limit of descriptors so that there
    /// is one for each client, as far as the system lets it.
    /// @throws std::runtime_error as ControlSocket does.
    void listen(const std::string& path);

    /// Serves one client on a pair of descriptors (standard input and output), which stay the caller's and
    /// open.
    /// @return its id; clientGone tells when the input has ended and all is answered.
    /// @throws std::system_error when the system has no descriptors for it.
    ClientId serve(int in, int out);

    /// The line that the handler put off for the client can go on; not from inside the handler. Nothing happens when
    /// the client has gone.
    void wake(ClientId client);

    /// Queues one line (without its newline) for a client; it leaves on the next turn.
    /// @return false when there is no such client, or it is cut off because too much waits for it already.
    bool notify(ClientId client, std::string_view line);

    /// Bytes that wait for a client; 0 when there is no such client.
    std::size_t unsent(ClientId client) const;
    /// Called when a client has taken all, after much waited for it: who held notifications back may go on. It is
    /// called from inside other work: it may do no more than note it.
    void onRoom(std::function<void()> callback) { onRoom_ = std::move(callback); }

    /// Whether the client keeps its place though it is idle, as one that waits to be told something.
    void keep(ClientId client, bool isKept);

    std::size_t clients() const { return sessions_.size() - ended_.size(); }
    /// Bytes held for all clients now, and the most that was.
    std::size_t memory() const { return memory_; }
    std::size_t memoryMost() const { return memoryMost_; }

    /// Clients since the start.
    struct Counters {
        std::uint64_t cutOff = 0;     // too much was held for them
        std::uint64_t idle = 0;       // closed for others, as they were idle
        std::uint64_t turnedAway = 0; // there was no place for them
    };
    const Counters& counters() const { return counters_; }

  private:
    class Session;
    struct Listener;
    struct KeptFlags {
        int fd;
        int flags;
    };

    void awaitClients();
    void letIn();
    void letIn(Fd client);
    bool hasPlaceFor(const Fd& client);
    bool closeIdle();
    void turnAway(const Fd& client);
    ClientId add(Fd in, Fd out);
    Fd ownDescriptor(int fd, int access);
    Session* sessionOf(ClientId client) const;

    void want(Session& session, ClientId id);
    void giveTurns();
    void account(Session& session);
    void cutOff(Session& session);
    void hasEnded(Session& session, ClientId id);
    void sendNotified();
    void sweep();

    // Has something done for a client; for want of memory it is cut off.
    template <class Work>
    void guard(Session& session, const Work& work) {
        try {
            work();
        } catch (const std::bad_alloc&) {
            cutOff(session);
        }
    }

    asio::io_context& context_;
    LineHandler& handler_;
    const std::size_t memoryLimit_;
    std::function<void()> onRoom_ = [] {};
    PostedTask turnTask_;
    PostedTask sendTask_;  // some were notified
    PostedTask sweepTask_; // some have ended
    std::shared_ptr<Listener> listener_;
    std::unordered_map<ClientId, std::shared_ptr<Session>> sessions_;
    Turns turns_;
    std::deque<ClientId> notified_;    // and not sent to since
    std::vector<ClientId> ended_;      // since the last sweep
    std::vector<KeptFlags> keptFlags_; // of descriptors that are shared with others, as they were
    std::array<char, 64U << 10U> chunk_;
    ClientId lastClient_ = 0;
    std::size_t memory_ = 0;
    std::size_t memoryMost_ = 0;
    Counters counters_;
};

} // namespace Agent
