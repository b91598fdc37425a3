// What answers the lines of the control socket's clients.
//
// Sessions calls it, from the loop only and never from inside another call to it. The application owns it; it
// outlives the sessions.
//
// Read next: Sessions.h, which brings the lines; JsonRpc.h, which answers them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Agent {

/// Names a client for the life of the server; never used again after it has gone.
using ClientId = std::uint64_t;

/// Why a client is closed with a last word to it.
enum class TurnedAway { lineTooLong, tooManyClients };

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

} // namespace Agent
