// The methods of the control protocol: get, set, del, apply, watch, unwatch, command, show, schema, status, trace,
// and those that others add.
//
// Each turns its parameters into operations (changes/Operations.h) or lines (language/Language.h) and has the result
// written where it is wanted. The application owns it beside the sessions that bring the requests.
//
// Whoever adds a method describes it as a row, as ControlMethods.cpp describes those of the service: its name, what it
// takes, what carries it out. The schema tells methods from the same rows.
//
// Read next: ControlMethods.cpp; Schema.cpp and Status.cpp, what `schema` and `status` tell.
#pragma once

#include "agent/changes/DryRun.h"
#include "agent/control/JsonRpc.h"
#include "agent/control/Watchers.h"
#include "agent/host/PostedTask.h"
#include "agent/language/Language.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace Agent {

enum class ParameterType : std::uint8_t { text, boolean, number, object, array, any };

/// "string", "boolean", "number", "object", "array", "any".
std::string_view typeText(ParameterType type);

struct Parameter {
    std::string_view name;
    ParameterType type;
    bool isRequired;
    std::string_view about;
};

/// The parameters of a request: all known, each of its type and there once, none missing that is required.
class Parameters {
  public:
    /// @param given outlives it.
    /// @param owner what takes them, for messages: `method "get"`.
    /// @throws Refusal whose place has the `field`.
    Parameters(const State::Datum::Record& given, std::span<const Parameter> known, const std::string& owner);

    /// Null when it was not given.
    const State::Datum* find(std::string_view name) const;
    /// The same as a value, of a parameter of such a type.
    std::optional<std::string> text(std::string_view name) const { return valueOf<std::string>(name); }
    std::optional<std::uint64_t> number(std::string_view name) const { return valueOf<std::uint64_t>(name); }
    std::optional<State::Datum> any(std::string_view name) const;
    /// Whether a boolean was given, and is true.
    bool isTrue(std::string_view name) const { return valueOf<bool>(name).value_or(false); }

  private:
    template <class T>
    std::optional<T> valueOf(std::string_view name) const {
        const State::Datum* value = find(name);
        return value == nullptr ? std::nullopt : std::optional(std::get<T>(value->content));
    }

    const State::Datum::Record& given_;
};

/// A request, for the method that carries it out; its parts are there during the call. The reply comes at once, or
/// later: what it needs until then is copied, itself among it. A copy of the parameters can be read as long as there is
/// a copy of the reply.
struct Call {
    ClientId client;
    const Parameters& parameters;
    const Text::Reply& reply;
};

struct Method {
    std::string_view name;
    std::string_view about;
    std::vector<Parameter> parameters;
    /// @throws Refusal
    std::function<void(const Call& call)> carryOut;
    bool takesMuch = false; // in a request
};

class ControlService final : public Dispatcher {
  public:
    /// All outlive it. Adds the verbs `schema` and `status` to the language.
    ControlService(asio::io_context& context, Operations& operations, Language& language, AnswerLog& log);

    /// Adds a method of somebody else's.
    void addMethod(Method method) { methods_.push_back(std::move(method)); }
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
    bool takesMuch(std::string_view method) const override;
    void clientGone(ClientId client) override;

  private:
    std::vector<Method> ownMethods();
    void addOwnVerbs();
    Text::Tell schemaOf(const std::optional<std::string>& type) const;
    void writeStatus(Text::Writer& writer) const;
    void carryOut(const Method& method, const Call& call);
    void tellWatchers();
    void keep(ClientId client, bool isKept);

    Operations& operations_;
    Language& language_;
    AnswerLog& log_;
    Watchers watchers_;
    DryRuns dryRuns_;
    PostedTask tellTask_;
    bool isTelling_ = false; // the last slice was not all
    Sessions* sessions_ = nullptr;
    std::vector<Method> methods_;
    std::vector<std::string> sources_;
    std::function<void(ClientId)> onClientGone_ = [](ClientId /*client*/) {};
    std::function<void()> onServed_ = [] {};
    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    std::uint64_t requests_ = 0;
};

} // namespace Agent
