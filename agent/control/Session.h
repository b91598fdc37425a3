// One client of Sessions: in its turn what it sent is read and cut into lines, and the handler serves one of them or a
// part of it; what is said to the client leaves as far as it takes it without waiting.
//
// It reads only when nothing is owed to the client: no line unserved, no answer unsent or put off. Answers are held
// back for company while more lines are there; notifications leave in order with them, but never inside an answer.
//
// Sessions owns it; operations of the loop that are under way for it share it. Once it has ended it touches its server
// no more.
#pragma once

#include "agent/control/Sessions.h"

#include <asio/posix/basic_stream_descriptor.hpp>

#include <chrono>

namespace Agent {

// Sockets, pipes, terminals and files are one to it. Only writes wait for readiness: what can't be waited for (a file)
// never makes them wait.
using Stream = asio::posix::basic_stream_descriptor<asio::io_context::executor_type>;

class Sessions::Session : public std::enable_shared_from_this<Session> {
  public:
    /// Reads and writes `in` alone if `out` is none. @throws std::system_error
    Session(Sessions& server, ClientId id, Fd in, Fd out);

    /// Begins to read.
    void start();
    /// Its turn: serves a line or the next part of one, if it still may.
    void serve();
    /// Goes on after something happened: sends what is to be sent now, then waits for what comes next.
    void proceed();
    /// What the handler put off can go on.
    void wake();
    /// Queues one line; it leaves soon. False when too much waits already.
    bool notify(std::string_view line);
    /// Queues a last word to the client, which is closed once that has left.
    void refuse(TurnedAway reason);
    /// Sends what is queued as far as it goes without waiting, and the rest when it goes; ends when the client can't be
    /// reached any more.
    void send();
    /// Closes it, with what is unsent, and has it swept.
    void end();

    bool hasEnded() const { return hasEnded_; }
    std::size_t unsent() const { return output_.size() - sent_ + held_.size(); }
    /// Bytes that are held for it, here and by the handler.
    std::size_t bytes() const;
    /// Whether a line, or a part of one, can be served now.
    bool wantsTurn() const;
    /// Whether it waits for the client and not the other way round: nothing of it is being served.
    bool isIdle() const {
        return progress_ == Progress::done && (isBlocked_ || (!hasLine() && !isReadable_));
    }

    Turns::Use use;
    std::size_t accounted = 0; // of its bytes, by Sessions
    bool isKept = false;       // not closed for being idle
    bool isNotified = false;   // it is to be sent to
    std::chrono::steady_clock::time_point lastHeard = std::chrono::steady_clock::now();

  private:
    Stream& out() { return ownOut_.is_open() ? ownOut_ : in_; }
    bool mayServe() const { return !isBlocked_ && progress_ != Progress::later && !isRefused_ && !hasEnded_; }
    bool hasLine() const { return lineEnd_ != std::string::npos; }
    bool isOverlong() const;

    void heedHangup();
    void awaitInput();
    void read();
    void append(std::string_view bytes);
    std::string_view takeLine();
    std::string takeBuffer(std::string_view line);
    void queue(std::string answer);
    void sendWhenTaken();

    Sessions& server_;
    const ClientId id_;
    Stream in_;
    Stream ownOut_;
    std::string input_;
    std::size_t lineBegin_ = 0;               // of the next line in input_
    std::size_t lineEnd_ = std::string::npos; // its newline, if that is there
    std::string output_;
    std::size_t sent_ = 0;     // of output_
    std::size_t notified_ = 0; // bytes of notifications since output_ was last empty
    std::string held_;         // notifications that wait for the end of an answer

    Progress progress_ = Progress::done; // of the line that is under way
    bool hasAnswerBegun_ = false;        // its first part is queued
    bool isAwaiting_ = false;            // input
    bool isReadable_ = false;            // and nothing before that waits to be served
    bool heedsHangup_ = false;
    bool isBlocked_ = false; // the client doesn't take what is sent
    bool isRefused_ = false; // ends when its last word is sent
    bool hasInputEnded_ = false;
    bool hasEnded_ = false;
};

} // namespace Agent
