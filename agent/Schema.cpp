#include "agent/Schema.h"

#include "agent/JsonRpc.h"
#include "agent/Paths.h"
#include "state/Entity.h"
#include "state/ValueType.h"

#include <nlohmann/json.hpp>

namespace Agent {

namespace {

using Json = nlohmann::json;

std::string_view kindText(State::AttributeKind kind) {
    constexpr std::string_view texts[] = {"value", "set", "map", "members"};
    return texts[static_cast<std::size_t>(kind)];
}

std::string_view kindText(State::ValueKind kind) {
    constexpr std::string_view texts[] = {"boolean", "number", "string", "enumeration", "record", "set"};
    return texts[static_cast<std::size_t>(kind)];
}

Json toJson(const State::EntityType& type) {
    Json attributes = Json::array();
    for (const auto& attribute : type.attributes()) {
        Json described = {{"name", attribute->name()}, {"kind", kindText(attribute->kind())}};
        if (const State::ValueType* key = attribute->keyType())
            described["keyType"] = key->name;
        if (const State::ValueType* value = attribute->valueType())
            described["valueType"] = value->name;
        if (const State::EntityType* member = attribute->memberType())
            described["memberType"] = member->name();
        attributes.push_back(std::move(described));
    }
    return {{"name", type.name()}, {"attributes", std::move(attributes)}};
}

Json toJson(const State::ValueType& type) {
    Json described = {{"name", type.name}, {"kind", kindText(type.kind)}};
    for (const auto& [name, field] : type.fields)
        described["fields"].push_back({{"name", name}, {"type", field->name}});
    if (type.element != nullptr)
        described["element"] = type.element->name;
    for (const std::string_view name : type.enumerators)
        described["enumerators"].push_back(name);
    return described;
}

Json toJson(const PathShape& shape) {
    Json described = {{"path", shape.text}, {"type", shape.entityType}};
    for (const std::string_view type : shape.types)
        described["TYPE"].push_back(type);
    return described;
}

Json toJson(const MethodDescription& method) {
    Json parameters = Json::array();
    for (const Parameter& parameter : method.parameters) {
        parameters.push_back({{"name", parameter.name},
                              {"type", typeText(parameter.type)},
                              {"required", parameter.isRequired},
                              {"about", parameter.about}});
    }
    return {{"name", method.name}, {"about", method.about}, {"parameters", std::move(parameters)}};
}

} // namespace

Json schemaOf(std::span<const MethodDescription> methods) {
    Json schema = {{"entityTypes", Json::array()},
                   {"valueTypes", Json::array()},
                   {"paths", Json::array()},
                   {"methods", Json::array()}};
    for (const State::EntityType* type : State::EntityType::all())
        schema["entityTypes"].push_back(toJson(*type));
    for (const State::ValueType* type : State::valueTypes())
        schema["valueTypes"].push_back(toJson(*type));
    for (const PathShape& shape : Paths::shapes())
        schema["paths"].push_back(toJson(shape));
    for (const MethodDescription& method : methods)
        schema["methods"].push_back(toJson(method));
    return schema;
}

Json schemaOfType(const std::string& name) {
    if (const State::EntityType* type = State::EntityType::find(name))
        return toJson(*type);
    if (const State::ValueType* type = State::findValueType(name))
        return toJson(*type);
    throw RpcError(RpcCode::invalidParams, "there is no entity or value type \"" + name + "\"",
                   {{"field", "type"}});
}

} // namespace Agent
