// What `schema` tells: entity types with their attributes, value types with their fields, the paths and the methods.
// Everything but paths and methods comes from reflection, so a new type or field is there without a word here.
#include "agent/control/ControlService.h"

#include "agent/host/Paths.h"
#include "agent/host/Refusal.h"
#include "state/Entity.h"
#include "state/ValueType.h"

namespace Agent {

namespace {

using Text::Writer;

std::string_view kindText(State::AttributeKind kind) {
    constexpr std::string_view texts[] = {"value", "set", "map", "members"};
    return texts[static_cast<std::size_t>(kind)];
}

std::string_view kindText(State::ValueKind kind) {
    constexpr std::string_view texts[] = {"boolean", "number", "string", "enumeration", "record", "set"};
    return texts[static_cast<std::size_t>(kind)];
}

void write(Writer& writer, const State::EntityType* type) {
    writer.beginRecord();
    writer.member("name", type->name());
    writer.list("attributes", type->attributes(), [&](const auto& attribute) {
        writer.beginRecord();
        writer.member("name", attribute->name());
        writer.member("kind", kindText(attribute->kind()));
        if (const State::ValueType* key = attribute->keyType())
            writer.member("keyType", key->name);
        if (const State::ValueType* value = attribute->valueType())
            writer.member("valueType", value->name);
        if (const State::EntityType* member = attribute->memberType())
            writer.member("memberType", member->name());
        writer.end();
    });
    writer.end();
}

void write(Writer& writer, const State::ValueType* type) {
    writer.beginRecord();
    writer.member("name", type->name);
    writer.member("kind", kindText(type->kind));
    if (!type->fields.empty()) {
        writer.list("fields", type->fields, [&](const auto& field) {
            writer.record("name", field.first, "type", field.second->name);
        });
    }
    if (type->element != nullptr)
        writer.member("element", type->element->name);
    if (!type->enumerators.empty())
        writer.list("enumerators", type->enumerators, [&](std::string_view name) { writer.value(name); });
    writer.end();
}

void write(Writer& writer, const PathShape& shape) {
    writer.beginRecord();
    writer.member("path", shape.text);
    writer.member("type", shape.entityType().name());
    if (!shape.modes.empty())
        writer.list("TYPE", shape.modes, [&](const char* mode) { writer.value(mode); });
    writer.end();
}

void write(Writer& writer, const Method& method) {
    writer.beginRecord();
    writer.member("name", method.name);
    writer.member("about", method.about);
    writer.list("parameters", method.parameters, [&](const Parameter& parameter) {
        writer.record("name", parameter.name, "type", typeText(parameter.type), "required",
                      parameter.isRequired, "about", parameter.about);
    });
    writer.end();
}

Text::Tell typeCalled(const std::string& name) {
    if (const State::EntityType* entity = State::EntityType::find(name))
        return [entity](Writer& writer) { write(writer, entity); };
    if (const State::ValueType* value = State::findValueType(name))
        return [value](Writer& writer) { write(writer, value); };
    throw Refusal("there is no entity or value type \"" + name + "\"", {.field = "type"});
}

} // namespace

// @param type an entity type or value type to tell alone.
Text::Tell ControlService::schemaOf(const std::optional<std::string>& type) const {
    if (type)
        return typeCalled(*type);
    return [this](Writer& writer) {
        const auto writeAll = [&](std::string_view name, const auto& all) {
            writer.list(name, all, [&](const auto& one) { write(writer, one); });
        };
        writer.beginRecord();
        writeAll("entityTypes", State::EntityType::all());
        writeAll("valueTypes", State::valueTypes());
        writeAll("paths", Paths::shapes());
        writeAll("methods", methods_);
        writer.end();
    };
}

} // namespace Agent
