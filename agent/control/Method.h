// A method of the control protocol: its name, what it takes, what carries it out; and the parameters of a request,
// held against what its method takes. The schema tells methods from the same descriptions.
//
// ControlService.h has the table of methods; whoever adds one of his own describes it in these words.
#pragma once

#include "agent/control/LineHandler.h"
#include "state/Datum.h"
#include "text/Writer.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

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
    Parameters(const State::Datum::Record& given, std::span<const Parameter> known, std::string_view owner);

    /// Null when it was not given.
    const State::Datum* find(std::string_view name) const;
    /// The same, of a parameter of such a type.
    const std::string* text(std::string_view name) const;
    const std::uint64_t* number(std::string_view name) const;
    /// Whether a boolean was given, and is true.
    bool isTrue(std::string_view name) const;

  private:
    const State::Datum::Record& given_;
};

struct Method {
    std::string_view name;
    std::string_view about;
    std::span<const Parameter> parameters; // outlive it
    /// Carries out a request. The reply comes at once, or later: what it needs until then is copied.
    /// @throws Refusal
    std::function<void(ClientId client, const Parameters& parameters, const Text::Reply& reply)> carryOut;
};

} // namespace Agent
