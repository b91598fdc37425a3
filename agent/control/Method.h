// A method of the control protocol: its name, what it takes, what carries it out; and the parameters of a request,
// held against what its method takes. The schema tells methods from the same descriptions.
//
// ControlMethods.cpp has the table of methods; whoever adds one of his own describes it in these words.
#pragma once

#include "agent/control/LineHandler.h"
#include "state/Datum.h"
#include "text/Writer.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
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
/// later: what it needs until then is copied, itself among it.
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
};

} // namespace Agent
