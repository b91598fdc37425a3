// What answers the lines of clients, as Sessions asks it.
//
// A line is served in parts, so that a long one holds nobody up: the handler says after each how it goes on. Sessions
// gives the next part when it is the client's turn again and the client has taken what was answered so far.
//
// Read next: Sessions.h, which brings the lines; JsonRpc.h, which answers them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Agent {

/// Names a client for the life of the server; never used again after it has gone.
using ClientId = std::uint64_t;

/// Why a client is closed with a last word to it.
enum class TurnedAway : std::uint8_t { lineTooLong, tooManyClients, idle };

/// How a line stands after a part of it was served.
enum class Progress : std::uint8_t {
    done,
    more,  // goOn() is to be called, on another turn
    later, // goOn() is to be called after Sessions::wake()
};

/// Sessions calls it from the loop only, and never from inside another call to it.
class LineHandler {
  public:
    /// Bytes of a line without its newline. One more is refused and the client closed.
    static constexpr std::size_t lineLimit = 4U << 20U;
    /// A line of more bytes is long: it takes a while to copy.
    static constexpr std::size_t longLine = 64U << 10U;

    virtual ~LineHandler() = default;

    /// Serves a line (without its newline, not blank), or begins to: no further line of the client is served until it
    /// is done. Notifications sent meanwhile, even to the same client, leave before the answer begins, or after its
    /// end. An exception ends the loop.
    /// @param line is there during the call.
    /// @param answer takes what is answered so far, without a newline inside or after it; an answer that stays empty
    /// to the end is none.
    virtual Progress serve(ClientId client, std::string_view line, std::string& answer) = 0;

    /// Takes a line of more than `longLine` bytes, to be served later: goOn() is to be called after Sessions::wake().
    virtual void serveLong(ClientId client, std::string line) = 0;

    /// Goes on with the line that is under way. @param answer takes what comes behind the parts before.
    virtual Progress goOn(ClientId client, std::string& answer) = 0;

    /// Bytes that it holds for a client whose line is under way, roughly.
    virtual std::size_t bytesFor(ClientId client) const = 0;

    /// The text that tells a client why it is closed.
    virtual std::string refusal(TurnedAway reason) = 0;

    /// The client has gone, for whatever reason; called once, on a turn of the loop of its own.
    virtual void clientGone(ClientId client) = 0;
};

} // namespace Agent
