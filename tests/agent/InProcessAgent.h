// The agent's host and operations in the test's own process, with the real plug-in, routes from Lumen.
#pragma once

#include "agent/Host.h"
#include "agent/JsonDatum.h"
#include "agent/Operations.h"
#include "state/Toggle.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace AgentTest {

using Json = nlohmann::json;

class InProcessAgent {
  public:
    InProcessAgent() {
        State::toggleOverrideIs(Agent::Host::lumenToggle, true);
        host.load(KESTREL_LIB_DIR "/libKestrelNatMulticastMounter.so");
    }

    Json get(const std::string& path, const std::string& attribute) const {
        Json all = Json::array();
        for (const auto& [key, value] : operations.members(path, attribute).members)
            all.push_back({Agent::toJson(key), Agent::toJson(value)});
        return all;
    }

    Agent::Host host;
    Agent::Operations operations{host};
};

inline Agent::Change setOf(const std::string& path, const std::string& attribute, const Json& key,
                           const Json& value = {}) {
    Agent::Change change{.path = path, .attribute = attribute};
    if (!key.is_null())
        change.key = Agent::toDatum(key);
    if (!value.is_null())
        change.value = Agent::toDatum(value);
    return change;
}

inline Agent::Change delOf(const std::string& path, const std::string& attribute, const Json& key) {
    Agent::Change change = setOf(path, attribute, key);
    change.op = Agent::Change::Op::del;
    return change;
}

} // namespace AgentTest
