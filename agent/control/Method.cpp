#include "agent/control/Method.h"

#include "agent/host/Refusal.h"

#include <algorithm>
#include <initializer_list>

namespace Agent {

namespace {

using State::Datum;

bool isOf(ParameterType type, const Datum& value) {
    switch (type) {
    case ParameterType::text:
        return value.text() != nullptr;
    case ParameterType::boolean:
        return value.boolean() != nullptr;
    case ParameterType::number:
        return value.number() != nullptr;
    case ParameterType::object:
        return value.record() != nullptr;
    case ParameterType::array:
        return value.list() != nullptr;
    case ParameterType::any:
        return true;
    }
    return false;
}

std::string wanted(ParameterType type) {
    return type == ParameterType::number ? "a number of at least 0, without a fraction"
                                         : "of type " + std::string(typeText(type));
}

std::string namesOf(std::span<const Parameter> parameters) {
    std::string names = parameters.empty() ? "none" : "";
    for (const Parameter& parameter : parameters) {
        names += names.empty() ? "" : ", ";
        names += parameter.name;
    }
    return names;
}

// Refuses with the parts of a message, joined.
[[noreturn]] void refuse(std::initializer_list<std::string_view> parts, std::string_view field) {
    std::string message;
    for (const std::string_view part : parts)
        message += part;
    throw Refusal(message, {.field = std::string(field)});
}

} // namespace

std::string_view typeText(ParameterType type) {
    constexpr std::string_view texts[] = {"string", "boolean", "number", "object", "array", "any"};
    return texts[static_cast<std::size_t>(type)];
}

Parameters::Parameters(const Datum::Record& given, std::span<const Parameter> known, std::string_view owner)
    : given_(given) {
    for (const auto& [name, value] : given) {
        const auto parameter = std::ranges::find(known, std::string_view(name), &Parameter::name);
        if (parameter == known.end())
            refuse({owner, " has no parameter \"", name, "\"; there are ", namesOf(known)}, name);
        if (find(name) != &value)
            refuse({"parameter \"", name, "\" of ", owner, " is given twice"}, name);
        if (!isOf(parameter->type, value))
            refuse({"parameter \"", name, "\" of ", owner, " must be ", wanted(parameter->type)}, name);
    }
    for (const Parameter& parameter : known)
        if (parameter.isRequired && find(parameter.name) == nullptr)
            refuse({owner, " needs the parameter \"", parameter.name, "\""}, parameter.name);
}

const Datum* Parameters::find(std::string_view name) const {
    const auto found = std::ranges::find(given_, name, &Datum::Record::value_type::first);
    return found == given_.end() ? nullptr : &found->second;
}

const std::string* Parameters::text(std::string_view name) const {
    const Datum* value = find(name);
    return value == nullptr ? nullptr : value->text();
}

const std::uint64_t* Parameters::number(std::string_view name) const {
    const Datum* value = find(name);
    return value == nullptr ? nullptr : value->number();
}

bool Parameters::isTrue(std::string_view name) const {
    const Datum* value = find(name);
    return value != nullptr && *value->boolean();
}

} // namespace Agent
