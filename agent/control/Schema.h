// What the agent can be asked and told: entity types with their attributes, value types with their fields, the paths
// and the methods. Everything but paths and methods comes from reflection, so a new type or field is there without a
// word here.
#pragma once

#include "agent/control/Method.h"

#include <span>
#include <string>

namespace Agent {

/// Writes the whole schema.
void writeSchema(Text::Writer& writer, std::span<const Method> methods);
/// Writes one entity type or value type. @throws Refusal when there is none of that name.
void writeSchemaOf(Text::Writer& writer, const std::string& type);

} // namespace Agent
