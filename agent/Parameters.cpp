#include "agent/Parameters.h"

#include "agent/JsonRpc.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace Agent {

namespace {

using Json = nlohmann::json;

constexpr Parameter changeParameterTable[] = {
    {"op", ParameterType::text, true, "\"set\" or \"del\""},
    {"path", ParameterType::text, true, "as for set and del"},
    {"attribute", ParameterType::text, false, "as for set and del"},
    {"key", ParameterType::any, false, "as for set and del"},
    {"value", ParameterType::any, false, "as for set"},
    {"raw", ParameterType::boolean, false, "whether the guards let it through"},
};

bool isOf(ParameterType type, const Json& value) {
    switch (type) {
    case ParameterType::text:
        return value.is_string();
    case ParameterType::boolean:
        return value.is_boolean();
    case ParameterType::number:
        return value.is_number_unsigned();
    case ParameterType::object:
        return value.is_object();
    case ParameterType::array:
        return value.is_array();
    case ParameterType::any:
        return true;
    }
    return false;
}

std::string wanted(ParameterType type) {
    return type == ParameterType::number ? "a number of at least 0, without a fraction"
                                         : "of type " + std::string(typeText(type));
}

[[noreturn]] void refuse(const std::string& message, std::string_view field) {
    throw RpcError(RpcCode::invalidParams, message, {{"field", field}});
}

std::string namesOf(std::span<const Parameter> parameters) {
    std::string names = parameters.empty() ? "none" : "";
    for (const Parameter& parameter : parameters) {
        names += names.empty() ? "" : ", ";
        names += parameter.name;
    }
    return names;
}

} // namespace

std::span<const Parameter> changeParameters() {
    return changeParameterTable;
}

std::string_view typeText(ParameterType type) {
    constexpr std::string_view texts[] = {"string", "boolean", "number", "object", "array", "any"};
    return texts[static_cast<std::size_t>(type)];
}

void checkParameters(const Json& object, std::span<const Parameter> parameters, std::string_view owner) {
    for (const auto& [name, value] : object.items()) {
        const auto known = std::ranges::find(parameters, std::string_view(name), &Parameter::name);
        if (known == parameters.end()) {
            refuse(std::string(owner) + " has no parameter \"" + name + "\"; there are " +
                       namesOf(parameters),
                   name);
        }
        if (!isOf(known->type, value)) {
            refuse("parameter \"" + name + "\" of " + std::string(owner) + " must be " + wanted(known->type),
                   name);
        }
    }
    for (const Parameter& parameter : parameters) {
        if (parameter.isRequired && !object.contains(parameter.name)) {
            refuse(std::string(owner) + " needs the parameter \"" + std::string(parameter.name) + "\"",
                   parameter.name);
        }
    }
}

const Json* given(const Json& parameters, std::string_view name) {
    const auto found = parameters.find(name);
    return found == parameters.end() ? nullptr : &*found;
}

std::string textOr(const Json& parameters, std::string_view name, std::string_view otherwise) {
    const Json* value = given(parameters, name);
    return value == nullptr ? std::string(otherwise) : value->get<std::string>();
}

bool isTrue(const Json& parameters, std::string_view name) {
    const Json* value = given(parameters, name);
    return value != nullptr && value->get<bool>();
}

} // namespace Agent
