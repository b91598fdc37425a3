// What the control methods take: their parameters by name and type, from which requests are checked and the
// schema tells them. The methods themselves: ControlService.h.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Agent {

enum class ParameterType : std::uint8_t { text, boolean, number, object, array, any };

struct Parameter {
    std::string_view name;
    ParameterType type;
    bool isRequired;
    std::string_view about;
};

struct MethodDescription {
    std::string_view name;
    std::string_view about;
    std::span<const Parameter> parameters;
};

/// The parameters of one change of `apply`.
std::span<const Parameter> changeParameters();

/// "string", "boolean", "number", "object", "array", "any".
std::string_view typeText(ParameterType type);

/// Holds an object against the parameters: none unknown, none of the wrong type, none missing.
/// @param owner what takes the parameters, for messages: `method "get"`.
/// @throws RpcError (invalidParams) whose data has the `field`.
void checkParameters(const nlohmann::json& given, std::span<const Parameter> parameters,
                     std::string_view owner);

/// The value of a parameter of checked type; null when it was not given.
const nlohmann::json* given(const nlohmann::json& parameters, std::string_view name);
std::string textOr(const nlohmann::json& parameters, std::string_view name, std::string_view otherwise);
bool isTrue(const nlohmann::json& parameters, std::string_view name);

} // namespace Agent
