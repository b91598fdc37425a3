#include "agent/control/Schema.h"

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

// A member that is a list, of what `write` writes of each element.
template <class List, class Write>
void writeList(Writer& writer, std::string_view name, const List& list, Write write) {
    writer.field(name);
    writer.beginList();
    for (const auto& element : list)
        write(element);
    writer.end();
}

void write(Writer& writer, const State::EntityType& type) {
    writer.beginRecord();
    writer.member("name", type.name());
    writeList(writer, "attributes", type.attributes(), [&](const auto& attribute) {
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

void write(Writer& writer, const State::ValueType& type) {
    writer.beginRecord();
    writer.member("name", type.name);
    writer.member("kind", kindText(type.kind));
    if (!type.fields.empty())
        writeList(writer, "fields", type.fields, [&](const auto& field) {
            writer.beginRecord();
            writer.member("name", field.first);
            writer.member("type", field.second->name);
            writer.end();
        });
    if (type.element != nullptr)
        writer.member("element", type.element->name);
    if (!type.enumerators.empty())
        writeList(writer, "enumerators", type.enumerators,
                  [&](std::string_view name) { writer.value(name); });
    writer.end();
}

void write(Writer& writer, const PathShape& shape) {
    writer.beginRecord();
    writer.member("path", shape.text);
    writer.member("type", shape.entityType().name());
    if (!shape.modes.empty())
        writeList(writer, "TYPE", shape.modes, [&](const char* mode) { writer.value(mode); });
    writer.end();
}

void write(Writer& writer, const Method& method) {
    writer.beginRecord();
    writer.member("name", method.name);
    writer.member("about", method.about);
    writeList(writer, "parameters", method.parameters, [&](const Parameter& parameter) {
        writer.beginRecord();
        writer.member("name", parameter.name);
        writer.member("type", typeText(parameter.type));
        writer.member("required", parameter.isRequired);
        writer.member("about", parameter.about);
        writer.end();
    });
    writer.end();
}

} // namespace

void writeSchema(Writer& writer, std::span<const Method> methods) {
    writer.beginRecord();
    writeList(writer, "entityTypes", State::EntityType::all(),
              [&](const auto* type) { write(writer, *type); });
    writeList(writer, "valueTypes", State::valueTypes(), [&](const auto* type) { write(writer, *type); });
    writeList(writer, "paths", Paths::shapes(), [&](const PathShape& shape) { write(writer, shape); });
    writeList(writer, "methods", methods, [&](const Method& method) { write(writer, method); });
    writer.end();
}

void writeSchemaOf(Writer& writer, const std::string& name) {
    if (const State::EntityType* entity = State::EntityType::find(name))
        write(writer, *entity);
    else if (const State::ValueType* value = State::findValueType(name))
        write(writer, *value);
    else
        throw Refusal("there is no entity or value type \"" + name + "\"", {.field = "type"});
}

} // namespace Agent
