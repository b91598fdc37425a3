#include "agent/control/Method.h"

#include "agent/host/Refusal.h"

#include <algorithm>

namespace Agent {

namespace {

using State::Datum;

struct TypeForm {
    std::string_view text;
    bool (*has)(const Datum& value);
};

// By ParameterType.
constexpr TypeForm typeForms[] = {
    {"string", [](const Datum& value) { return value.text() != nullptr; }},
    {"boolean", [](const Datum& value) { return value.boolean() != nullptr; }},
    {"number", [](const Datum& value) { return value.number() != nullptr; }},
    {"object", [](const Datum& value) { return value.record() != nullptr; }},
    {"array", [](const Datum& value) { return value.list() != nullptr; }},
    {"any", [](const Datum& /*value*/) { return true; }},
};

const TypeForm& formOf(ParameterType type) {
    return typeForms[static_cast<std::size_t>(type)];
}

std::string wanted(ParameterType type) {
    return type == ParameterType::number ? "a number of at least 0, without a fraction"
                                         : "of type " + std::string(typeText(type));
}

std::string namesOf(std::span<const Parameter> parameters) {
    std::string names = parameters.empty() ? "none" : "";
    for (const Parameter& parameter : parameters)
        names += (names.empty() ? "" : ", ") + std::string(parameter.name);
    return names;
}

} // namespace

std::string_view typeText(ParameterType type) {
    return formOf(type).text;
}

Parameters::Parameters(const Datum::Record& given, std::span<const Parameter> known, const std::string& owner)
    : given_(given) {
    for (const auto& [name, value] : given) {
        const auto parameter = std::ranges::find(known, std::string_view(name), &Parameter::name);
        const std::string named = "parameter \"" + name + "\"";
        if (parameter == known.end())
            throw Refusal(owner + " has no " + named + "; there are " + namesOf(known), {.field = name});
        if (find(name) != &value)
            throw Refusal(named + " of " + owner + " is given twice", {.field = name});
        if (!formOf(parameter->type).has(value))
            throw Refusal(named + " of " + owner + " must be " + wanted(parameter->type), {.field = name});
    }
    for (const auto& [name, type, isRequired, about] : known)
        if (isRequired && find(name) == nullptr)
            throw Refusal(owner + " needs the parameter \"" + std::string(name) + "\"",
                          {.field = std::string(name)});
}

const Datum* Parameters::find(std::string_view name) const {
    const auto found = std::ranges::find(given_, name, &Datum::Record::value_type::first);
    return found == given_.end() ? nullptr : &found->second;
}

std::optional<Datum> Parameters::any(std::string_view name) const {
    const Datum* value = find(name);
    return value == nullptr ? std::nullopt : std::optional(*value);
}

} // namespace Agent
