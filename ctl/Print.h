// Readable prints of what has no text from the agent: changes of answers, single values, trace records,
// nested objects.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <iosfwd>
#include <string>

namespace Ctl {

/// One changed answer, for instance "mroute (10.0.0.1, 239.1.1.1) in red for Ethernet5 vlan 10: Ethernet1
/// Ethernet2", as the agent prints it too.
/// @param change an object with `path`, `key`, `value` (null: the answer is gone) and, where it is known,
/// `vrf`.
std::string changeText(const nlohmann::ordered_json& change);

/// A string as it stands, anything else as JSON.
std::string plain(const nlohmann::ordered_json& value);

/// A value over as many lines as it needs: an object's fields one a line, indented by two blanks a level;
/// short values behind their name.
void printOutline(std::ostream& out, const nlohmann::ordered_json& value);

/// A value or collection as `get` gave it: an entry a line, a map's as "key = value".
void printValue(std::ostream& out, const nlohmann::ordered_json& value);

} // namespace Ctl
