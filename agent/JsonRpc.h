// JSON-RPC 2.0 over lines: reads a request or a batch, calls the dispatcher, writes the answer.
//
// What can't be parsed, nests too deep or is no request is refused here; the dispatcher sees a method name
// and a parameter object. A request without an id is a notification: it is carried out and never answered,
// not even with an error. What takes long is begun; its client's line, a batch as a whole, waits for the
// result, and nobody else does.
//
// main() owns it; the dispatcher outlives it. Read next: LineServer.h, which brings the lines.
#pragma once

#include "agent/LineServer.h"

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Agent {

/// Error codes of the protocol: the standard's, and the agent's own.
namespace RpcCode {
constexpr int parseError = -32700;
constexpr int invalidRequest = -32600;
constexpr int methodNotFound = -32601;
constexpr int invalidParams = -32602;
constexpr int internalError = -32603;
/// A guard refuses the change; `raw` lets it through.
constexpr int refused = -32000;
/// An `expect` did not hold; `data` has both sides.
constexpr int expectationFailed = -32001;
/// Too large, too many, or not now.
constexpr int limitReached = -32002;
} // namespace RpcCode

/// What a dispatcher throws to answer with an error object.
class RpcError : public std::runtime_error {
  public:
    RpcError(int code, const std::string& message);
    /// @param data an object that says where: `path`, `attribute`, `field`, `line`, ...
    RpcError(int code, const std::string& message, nlohmann::json data);

    int code() const { return code_; }
    /// The data, or null when there is none.
    const nlohmann::json* data() const { return data_.get(); }

  private:
    int code_;
    std::shared_ptr<const nlohmann::json> data_;
};

/// What carries out the methods.
class Dispatcher {
  public:
    virtual ~Dispatcher() = default;

    /// Carries out a method.
    /// @param params always an object; an empty one when the request had none.
    /// @throws RpcError to answer with that error. Any other std::exception is answered as an internal error.
    virtual nlohmann::json call(ClientId client, const std::string& method, const nlohmann::json& params) = 0;

    /// Hears the result of what was begun.
    using Reply = std::function<void(nlohmann::json result)>;
    /// Whether the call takes so long that others must be served meanwhile: it is then begun.
    virtual bool takesLong(const std::string& /*method*/, const nlohmann::json& /*params*/) const {
        return false;
    }
    /// Begins such a call; `reply` is called once, later and from the loop, or not at all when the agent
    /// ends. @throws as call() does.
    virtual void begin(ClientId /*client*/, const nlohmann::json& /*params*/, const Reply& /*reply*/) {}

    /// The client has gone: forget what is kept for it.
    virtual void clientGone(ClientId client) = 0;
};

class JsonRpc final : public LineHandler {
  public:
    /// Levels of arrays and objects in a line.
    static constexpr int depthLimit = 64;
    /// Requests of a batch whose answers have grown beyond so many bytes are not carried out any more.
    static constexpr std::size_t batchAnswerLimit = 64U << 20U;

    explicit JsonRpc(Dispatcher& dispatcher);
    ~JsonRpc() override;

    /// Who sends the results of calls that take long; null: there are no such calls.
    void serverIs(LineServer* server) { server_ = server; }

    void answer(ClientId client, std::string_view line, std::string& out) override;
    void refusal(Refusal reason, std::string& out) override;
    void clientGone(ClientId client) override;

    /// A notification as a line, for LineServer::notify.
    static std::string notification(std::string_view method, const nlohmann::json& params);

  private:
    enum class Answered { no, yes, later };
    struct Line;

    Answered answerOne(ClientId client, const nlohmann::json& request, std::string& out);
    bool answerBatch(ClientId client, Line& line);
    void replied(ClientId client, const nlohmann::json& result);

    Dispatcher& dispatcher_;
    LineServer* server_ = nullptr;
    std::unordered_map<ClientId, std::unique_ptr<Line>> waiting_; // for the result of a call
};

} // namespace Agent
