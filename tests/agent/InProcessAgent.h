// The agent's host and operations in the test's own process, with the real plug-in, routes from Lumen.
#pragma once

#include "agent/changes/Operations.h"
#include "agent/json/Json.h"
#include "state/Toggle.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace AgentTest {

using Json = nlohmann::json;

inline State::Datum toDatum(const Json& json) {
    return Agent::Json::parse(json.dump());
}
inline Json toJson(const State::Datum& datum) {
    return Json::parse(Agent::Json::textOf(datum));
}

class InProcessAgent {
  public:
    InProcessAgent() {
        State::toggleOverrideIs(Agent::Host::sourceToggle, true);
        host.load(KESTREL_LIB_DIR "/libKestrelNatMulticastMounter.so");
    }

    Json get(const std::string& path, const std::string& attribute) const {
        Json all = Json::array();
        for (const auto& [key, value] : operations.members(path, attribute).members)
            all.push_back({toJson(key), toJson(value)});
        return all;
    }

    Agent::Host host;
    Agent::Operations operations{host};
};

inline Agent::Change setOf(const std::string& path, const std::string& attribute, const Json& key,
                           const Json& value = {}) {
    Agent::Change change{.path = path, .attribute = attribute};
    if (!key.is_null())
        change.key = toDatum(key);
    if (!value.is_null())
        change.value = toDatum(value);
    return change;
}

inline Agent::Change delOf(const std::string& path, const std::string& attribute, const Json& key) {
    Agent::Change change = setOf(path, attribute, key);
    change.op = Agent::Change::Op::del;
    return change;
}

} // namespace AgentTest
