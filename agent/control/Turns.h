// Whose turn it is among clients that want the one loop: who has used it little, and is not expected to use it for
// long, goes before the others; who uses it much waits, and everybody's turn comes.
//
// Self-clocked fair queueing (S. J. Golestani, INFOCOM 1994), with time used in place of bytes sent. Nobody knows how
// long a turn will be, so it is taken to be as long as the client's last ones. A client that rests earns a credit, so
// that one with a short request now and then goes before all who are at it without a pause, and before those who have
// just come, however many they are.
//
// Sessions owns it. It knows no clock: it is told the time.
#pragma once

#include "agent/control/LineHandler.h"

#include <chrono>
#include <cstdint>
#include <vector>

namespace Agent {

class Turns {
  public:
    using Time = std::chrono::nanoseconds;
    /// How far behind the others' use a client's own may count.
    static constexpr Time credit = std::chrono::milliseconds(5);
    /// Of the time that a client rests it earns this part as credit: one in so many.
    static constexpr int restShare = 20;

    /// What is remembered of a client. Its owner keeps it; it begins with join().
    class Use {
        friend class Turns;
        Time tag_{};      // when, by the clock of use, its last turn ends
        Time expected_{}; // how long its next one will be
        Time rests_{};    // since when, by the clock
        bool isQueued_ = false;
    };

    /// For a client that comes: no credit.
    Use join(Time now) const;
    /// The client wants a turn; nothing happens if it is waiting for one.
    void want(ClientId client, Use& use, Time now);
    /// Whether anybody waits; who has gone meanwhile counts too.
    bool anyWaiting() const { return !queue_.empty(); }
    /// Takes the one whose turn it is, which may have gone; one must wait.
    ClientId next();
    /// The turn of the client that was taken last is over now and took so long.
    void used(Use& use, Time length, Time now);

  private:
    struct Place {
        Time tag;
        std::uint64_t number; // of places of one tag the first goes first
        ClientId client;
    };
    static bool isLater(const Place& left, const Place& right);

    std::vector<Place> queue_; // a heap
    Time used_{};              // the clock of use: what one that always wants turns has used
    std::uint64_t lastNumber_ = 0;
};

} // namespace Agent
