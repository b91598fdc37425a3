// The methods of the control protocol: get, set, del, apply, watch, unwatch, command, show, schema, status, trace,
// and those that others add.
//
// Each turns its parameters into operations (changes/Operations.h) or lines (language/Language.h) and has the result
// written where it is wanted. The application owns it beside the sessions that bring the requests.
//
// Read next: ControlMethods.cpp, the methods; Method.h, what they take; Schema.h and Status.h.
#pragma once

#include "agent/control/JsonRpc.h"
#include "agent/control/Method.h"
#include "agent/control/Watchers.h"
#include "agent/host/PostedTask.h"
#include "agent/language/Language.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

class ControlService final : public Dispatcher {
  public:
    /// All outlive it. Adds the verbs `schema` and `status` to the language.
    ControlService(asio::io_context& context, Operations& operations, Language& language, AnswerLog& log);

    /// Adds a method of somebody else's.
    void addMethod(Method method);
    /// Where watchers are told; null: nowhere any more.
    void attach(Sessions* sessions);
    /// What else feeds the agent, for `status`: "kernel", "software-chip".
    void nameSource(std::string source) { sources_.push_back(std::move(source)); }
    /// Called when a client has gone.
    void onClientGone(std::function<void(ClientId)> callback) { onClientGone_ = std::move(callback); }
    /// Called after each request.
    void onServed(std::function<void()> callback) { onServed_ = std::move(callback); }

    void call(ClientId client, std::string_view method, const State::Datum::Record& params,
              const Text::Reply& reply) override;
    void clientGone(ClientId client) override;

    /// Writes the result of `status`.
    void writeStatus(Text::Writer& writer) const;

  private:
    void addOwnMethods();
    void addOwnVerbs();

    void get(const Parameters& parameters, const Text::Reply& reply);
    void change(const Parameters& parameters, Change::Op op, const Text::Reply& reply);
    void apply(const Parameters& parameters, const Text::Reply& reply);
    void watch(ClientId client, const Parameters& parameters, const Text::Reply& reply);
    void command(const Parameters& parameters, const Text::Reply& reply);
    void schema(const Parameters& parameters, const Text::Reply& reply);
    void trace(const Parameters& parameters, const Text::Reply& reply);

    void dryRun(std::span<const Change> changes, bool withText, const Text::Reply& reply);
    void writeSnapshot(Text::Writer& writer, bool withText) const;
    bool stillHolds(const Parameters& since) const;
    void writeCounters(Text::Writer& writer) const;
    void tellWatchers();

    Operations& operations_;
    Language& language_;
    AnswerLog& log_;
    Watchers watchers_;
    PostedTask tellTask_;
    Sessions* sessions_ = nullptr;
    std::vector<Method> methods_;
    std::vector<std::string> sources_;
    std::function<void(ClientId)> onClientGone_;
    std::function<void()> onServed_ = [] {};
    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    std::uint64_t requests_ = 0;
};

} // namespace Agent
