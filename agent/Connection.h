// One client's buffers and its input and output: bytes come in and are cut into lines, lines go out as far as
// the client takes them. What is served when is LineServer's business, which owns the connections and keeps
// its notes on each in `serving`.
//
// The input buffer holds at most one line beyond those that are complete, and is read into only when none is.
#pragma once

#include "agent/Fd.h"
#include "agent/LineServer.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Agent {

class Connection {
  public:
    enum class Received { data, nothing, end };
    enum class Sent { all, part, broken };

    /// A client of the control socket.
    Connection(ClientId id, Fd socket);
    /// A client on two descriptors that stay the caller's.
    Connection(ClientId id, int in, int out);

    ClientId id() const { return id_; }
    int in() const { return in_; }
    int out() const { return out_; }

    /// Reads once, without waiting. Call it when hasLine() is false only.
    Received receive();

    /// Whether a complete line is there.
    bool hasLine();

    /// Whether the line that is next has, complete or not, more bytes than a line may have.
    bool overlong();

    /// The next line, without its newline; valid until receive(). hasLine() must be true.
    std::string_view takeLine();

    /// Queues an answer; takes the text over and leaves any other in its place.
    void queueAnswer(std::string& text);

    /// Queues a notification.
    void queueNotification(std::string_view line);

    /// Whether one more notification of so many bytes would be more than may wait.
    bool notificationsFull(std::size_t bytes) const;

    /// Sends what is queued, as far as it goes without waiting.
    Sent send();

    std::size_t unsent() const { return output_.size() - sent_; }

    /// Closes what it owns.
    void close();

    /// LineServer's notes.
    struct Serving {
        std::uint64_t turn = 0;  // in which its last line was served
        unsigned interest = 0;   // as the loop knows it
        bool queued = false;     // waits for its turn
        bool notified = false;   // is in the list of those to be settled at the turn's end
        bool blocked = false;    // the client doesn't take what is sent
        bool owed = false;       // its last line is answered later
        bool inputEnded = false; // nothing will come any more
        bool closing = false;    // refused: goes when all is sent
        bool dead = false;       // goes at the end of the turn
    };
    Serving serving;

  private:
    static constexpr std::size_t smallBuffer = 64U << 10U;
    static constexpr std::size_t largestBuffer = LineServer::lineLimit + (64U << 10U);
    /// An output buffer that grew beyond this is given back when all is sent.
    static constexpr std::size_t keptOutput = 256U << 10U;

    void makeRoom();
    std::size_t lineEnd();

    ClientId id_;
    Fd own_;    // the client's socket, if it is ours
    Fd ownOut_; // standard output opened once more
    int in_;
    int out_;
    bool inSocket_ = true;
    bool outSocket_ = true;

    std::unique_ptr<char[]> input_; // NOLINT(modernize-avoid-c-arrays): grown without being zeroed
    std::size_t capacity_ = 0;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::size_t scanned_ = 0; // no newline in front of this position

    std::string output_;
    std::size_t sent_ = 0;
    std::size_t notified_ = 0; // bytes of notifications since output_ was last empty
};

} // namespace Agent
