// JSON-RPC 2.0 over lines: reads a request or a batch, calls the dispatcher, writes the answer.
//
// What can't be parsed, nests too deep or is no request is refused here; the dispatcher sees a method name and a
// parameter object. A request without an id is a notification: it is carried out and never answered, not even with
// an error. A reply may come after its call: the line, a batch as a whole, then waits for it, and no other client
// does. Nor do others wait for what is long: a long line is read beside the loop, a long batch is served in slices and
// answered in parts. The codes of the protocol's errors are known here alone.
//
// The application owns it. Read next: Sessions.h, which brings the lines; ControlService.h, the dispatcher.
#pragma once

#include "agent/control/LineHandler.h"
#include "agent/host/Worker.h"
#include "state/Datum.h"
#include "text/Writer.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>

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
    /// @param params there during the call, and as long as a copy of the reply; an empty one when the request had none.
    /// @param reply takes the result, during the call or later from the loop. What raises while it writes is answered
    /// as what the call raises.
    /// @throws UnknownMethod, Refusal; any other std::exception is answered as an internal error.
    virtual void call(ClientId client, std::string_view method, const State::Datum::Record& params,
                      const Text::Reply& reply) = 0;

    /// Whether a request of that method may be as long as a line; all others have a limit, as their work can't be done in
    /// parts.
    virtual bool takesMuch(std::string_view method) const = 0;

    /// The client has gone: forget what is kept for it.
    virtual void clientGone(ClientId client) = 0;
};

class JsonRpc final : public LineHandler {
  public:
    /// How long a batch is served on a turn, give or take its last request.
    static constexpr std::chrono::microseconds slice{500};
    /// A batch is answered in parts of so many bytes, give or take its last answer.
    static constexpr std::size_t partBytes = 64U << 10U;
    /// A request of a method that doesn't take much has fewer bytes, about.
    static constexpr std::size_t requestBytes = 64U << 10U;
    /// Values in a message: each scalar, array and object is one.
    static constexpr std::size_t valueLimit = 1U << 19U;

    /// Has goOn() called for a client whose line was put off.
    using Wake = std::function<void(ClientId client)>;

    /// @param dispatcher, worker outlive it.
    JsonRpc(Dispatcher& dispatcher, Worker& worker, Wake wake);

    Progress serve(ClientId client, std::string_view text, std::string& answer) override;
    void serveLong(ClientId client, std::string text) override;
    Progress goOn(ClientId client, std::string& answer) override;
    std::size_t bytesFor(ClientId client) const override;
    std::string refusal(TurnedAway reason) override;
    void clientGone(ClientId client) override;

  private:
    struct Line;

    Progress serveSlice(const std::shared_ptr<Line>& line, std::string& answer);
    void serveNext(const std::shared_ptr<Line>& line);
    void letGo(std::shared_ptr<Line> line);

    Dispatcher& dispatcher_;
    Worker& worker_;
    Wake wake_;
    std::unordered_map<ClientId, std::shared_ptr<Line>> lines_; // that are under way
};

} // namespace Agent
