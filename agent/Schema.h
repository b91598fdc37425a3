// What the agent can be asked and told, as JSON: entity types with their attributes, value types with their
// fields, the paths and the methods. Everything but paths and methods comes from reflection, so a new type or
// field is there without a word here.
#pragma once

#include "agent/Parameters.h"

#include <nlohmann/json_fwd.hpp>

#include <span>
#include <string>

namespace Agent {

/// The whole schema.
nlohmann::json schemaOf(std::span<const MethodDescription> methods);
/// One entity type or value type. @throws RpcError when there is none of that name.
nlohmann::json schemaOfType(const std::string& name);

} // namespace Agent
