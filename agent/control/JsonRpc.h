// JSON-RPC 2.0 over lines: reads a request or a batch, calls the dispatcher, writes the answer.
//
// What can't be parsed, nests too deep or is no request is refused here; the dispatcher sees a method name and a
// parameter object. A request without an id is a notification: it is carried out and never answered, not even with
// an error. A reply may come after its call: the line, a batch as a whole, then waits for it, and no other client
// does; nor do they wait for a long batch, which is served in slices, one a turn of the loop. The codes of the protocol's
// errors are known here alone.
//
// The application owns it. Read next: Sessions.h, which brings the lines; ControlService.h, the dispatcher.
#pragma once

#include "agent/control/Sessions.h"
#include "agent/host/PostedTask.h"
#include "state/Datum.h"
#include "text/Writer.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace Agent {

/// Raised by a dispatcher that has no such method.
class UnknownMethod : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// What carries out the methods.
class Dispatcher {
  public:
    virtual ~Dispatcher() = default;

    /// Carries out a method.
    /// @param params there during the call; an empty one when the request had none.
    /// @param reply takes the result, during the call or later from the loop. What raises while it writes is answered
    /// as what the call raises.
    /// @throws UnknownMethod, Refusal; any other std::exception is answered as an internal error.
    virtual void call(ClientId client, std::string_view method, const State::Datum::Record& params,
                      const Text::Reply& reply) = 0;

    /// The client has gone: forget what is kept for it.
    virtual void clientGone(ClientId client) = 0;
};

class JsonRpc final : public LineHandler {
  public:
    /// Requests of a batch whose answers have grown beyond so many bytes are not carried out any more.
    static constexpr std::size_t batchAnswerLimit = 64U << 20U;

    /// How long a batch is served on a turn of the loop, give or take its last request.
    static constexpr std::chrono::microseconds slice{500};

    /// Takes the answer to a line that serve() left unfinished.
    using Finish = std::function<void(ClientId client, std::string answer)>;

    /// @param context, dispatcher outlive it.
    JsonRpc(asio::io_context& context, Dispatcher& dispatcher, Finish finish);

    std::optional<std::string> serve(ClientId client, std::string_view text) override;
    std::string refusal(TurnedAway reason) override;
    void clientGone(ClientId client) override;

  private:
    struct Line;

    bool goOn(const std::shared_ptr<Line>& line);
    void serveNext(const std::shared_ptr<Line>& line);
    void replied(const std::shared_ptr<Line>& line, const Text::Tell& tell);
    void serveSlice();
    void finishIfDone(const std::shared_ptr<Line>& line);

    Dispatcher& dispatcher_;
    Finish finish_;
    std::unordered_map<ClientId, std::shared_ptr<Line>> waiting_; // for a reply, or for their next slice
    std::deque<ClientId> due_;                                    // whose batches have a slice coming
    PostedTask nextSlice_;
};

} // namespace Agent
