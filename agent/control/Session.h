// One client: what it sends is cut into lines, the handler serves one of them a turn, and what is said to the
// client leaves as far as it takes it without waiting.
//
// It reads only when nothing is owed to the client: no line unserved, no answer unsent or put off. Answers
// are held back for company while more lines are there; notifications leave in order with them.
//
// Sessions makes it and shares it with the operations of the loop that are under way for it. It never calls
// its server: it leaves word in Shared, and the loop brings the server back to it.
//
// Read next: LineBuffer.h (what came in), Sessions.h (the server).
#pragma once

#include "agent/control/LineBuffer.h"
#include "agent/control/LineHandler.h"
#include "agent/host/Fd.h"
#include "agent/host/PostedTask.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

class Session : public std::enable_shared_from_this<Session> {
  public:
    /// Bytes of notifications that may wait for one client.
    static constexpr std::size_t notificationLimit = 8U << 20U;
    /// Answers are held back for company up to so many bytes; what waits beyond them is much.
    static constexpr std::size_t batchBytes = 64U << 10U;

    /// What the sessions of a server share. The server owns it; closed sessions don't touch it.
    struct Shared {
        LineHandler& handler;
        PostedTask sweep;                 // some have ended
        PostedTask room;                  // somebody for whom much waited has taken it
        std::vector<ClientId> ended = {}; // since the last sweep
        std::string answer = {};          // to the line that is being served; kept for its memory
    };

    /// @param in, out what is read and written, in `in` alone if out is none.
    /// @throws std::system_error
    Session(asio::io_context& context, Shared& shared, ClientId id, Fd in, Fd out = {});
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Begins to read.
    void start();

    /// Ends the line that the handler did not finish; an empty answer is none.
    void finish(std::string_view answer);

    /// Queues one line (without its newline); it leaves on a turn of its own.
    /// @return false when too much waits already.
    bool notify(std::string_view line);

    /// Sends what is queued as far as it goes without waiting, and the rest when it goes.
    /// @return false when the client can't be reached any more.
    bool send();

    /// Closes it, with what is unsent, and has it swept.
    void end();

    bool hasEnded() const { return hasEnded_; }
    std::size_t unsent() const { return output_.size() - sent_; }

  private:
    /// An output buffer that grew beyond this is given back when all is sent.
    static constexpr std::size_t keptOutput = 256U << 10U;
    struct Streams;

    void read();
    void received(std::size_t bytes);
    void watchOutput();
    void sendWhenTaken();
    void turn();
    void serveLine();
    void refuse();
    void proceed();
    bool mayServe() const { return !isBlocked_ && !isOwed_ && !isRefused_; }

    Shared& shared_;
    const ClientId id_;
    std::unique_ptr<Streams> streams_;
    PostedTask turn_;
    LineBuffer input_;
    std::string output_;
    std::size_t sent_ = 0;     // of output_
    std::size_t notified_ = 0; // bytes of notifications since output_ was last empty

    bool isReading_ = false;
    bool isBlocked_ = false; // the client doesn't take what is sent
    bool isOwed_ = false;    // its last line is answered later
    bool isRefused_ = false; // ends when its last word is sent
    bool hasInputEnded_ = false;
    bool hasEnded_ = false;
    bool hadMuch_ = false; // waiting for it since output_ was last empty
};

} // namespace Agent
