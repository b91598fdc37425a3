// The methods of the control protocol: get, set, del, apply, watch, unwatch, command, schema, status, kernel,
// trace.
//
// Each turns its parameters into operations (Operations.h) and their results into JSON; what is refused
// becomes an error object whose data says where. The application owns it beside the server that brings the
// requests.
//
// Read next: ControlMethods.cpp, the methods; Parameters.h, what they take; Schema.cpp and StatusReport.cpp.
#pragma once

#include "agent/JsonRpc.h"
#include "agent/Parameters.h"
#include "agent/Watchers.h"

#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

class Grammar;
class KernelSource;

class ControlService final : public Dispatcher {
  public:
    /// Most members of a collection in one answer of `get`.
    static constexpr std::size_t pageLimit = 65536;

    /// All outlive it.
    ControlService(Operations& operations, const AnswerLog& log)
        : operations_(operations)
        , log_(log)
        , watchers_(log)
        , started_(std::chrono::steady_clock::now()) {}

    /// The parts that an agent need not have; null: it has none.
    void grammarIs(Grammar* grammar) { grammar_ = grammar; }
    void kernelSourceIs(KernelSource* source) { kernel_ = source; }
    void serverIs(LineServer* server);
    /// What else feeds the agent, for `status`: "kernel", "software-chip".
    void sourcesAre(std::vector<std::string> sources) { sources_ = std::move(sources); }
    /// Called when a client has gone.
    void onClientGone(std::function<void(ClientId)> callback) { onClientGone_ = std::move(callback); }

    nlohmann::json call(ClientId client, const std::string& method, const nlohmann::json& params) override;
    /// `kernel` with verify, where there is a kernel source.
    bool takesLong(const std::string& method, const nlohmann::json& params) const override;
    void begin(ClientId client, const nlohmann::json& params, const Reply& reply) override;
    void clientGone(ClientId client) override;

    /// Tells watchers what changed; the loop's turn hook. True if there is more to tell at once.
    bool tellWatchers() { return watchers_.tell(); }

    /// The result of `status`.
    nlohmann::json statusReport() const;

    /// What there is to call, for the schema.
    static std::vector<MethodDescription> methods();

  private:
    using Json = nlohmann::json;
    struct Method : MethodDescription {
        Json (ControlService::*carryOut)(ClientId, const Json&);
    };
    static std::span<const Method> table();

    Json get(ClientId client, const Json& params);
    Json set(ClientId client, const Json& params);
    Json del(ClientId client, const Json& params);
    Json apply(ClientId client, const Json& params);
    Json watch(ClientId client, const Json& params);
    Json unwatch(ClientId client, const Json& params);
    Json command(ClientId client, const Json& params);
    Json schema(ClientId client, const Json& params);
    Json status(ClientId client, const Json& params);
    Json kernel(ClientId client, const Json& params);
    Json trace(ClientId client, const Json& params);

    Json attributeValue(const std::string& path, std::string_view attribute, const Json& params) const;
    Json missedChanges(const Json& since) const;
    std::vector<Change> listedChanges(const Json& list) const;
    Json counters() const;

    Operations& operations_;
    const AnswerLog& log_;
    Watchers watchers_;
    Grammar* grammar_ = nullptr;
    KernelSource* kernel_ = nullptr;
    LineServer* server_ = nullptr;
    std::vector<std::string> sources_;
    std::function<void(ClientId)> onClientGone_;
    std::chrono::steady_clock::time_point started_;
    std::uint64_t requests_ = 0;
};

} // namespace Agent
