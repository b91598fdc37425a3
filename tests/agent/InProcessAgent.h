// The agent's host and operations in the test's own process, with the real plug-in, routes from Lumen.
#pragma once

#include "agent/changes/Operations.h"
#include "agent/host/Refusal.h"
#include "state/Toggle.h"
#include "tests/agent/Json.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace AgentTest {

class InProcessAgent {
  public:
    InProcessAgent() {
        State::toggleOverrideIs(Agent::Host::sourceToggle, true);
        host.load(KESTREL_LIB_DIR "/libKestrelNatMulticastMounter.so");
    }

    /// The members of a collection, each a pair of key and value.
    std::vector<Json> get(const std::string& path, const std::string& attribute) const {
        std::vector<Json> all;
        operations.eachMember(path, attribute, nullptr, [&](const auto& key, const auto& value) {
            all.emplace_back(std::vector<Json>{Json(key), Json(value)});
            return true;
        });
        return all;
    }

    Agent::Host host;
    Agent::Operations operations{host};
};

/// Why the work is refused. Fails the test when it is not.
template <class Work>
Agent::Refusal refusalOf(Work work) {
    try {
        work();
    } catch (const Agent::Refusal& refusal) {
        return refusal;
    }
    ADD_FAILURE() << "nothing was refused";
    return Agent::Refusal("nothing");
}

/// Null: no key, no value.
inline Agent::Change setOf(const std::string& path, const std::string& attribute, const Json& key,
                           const Json& value = {}) {
    Agent::Change change{.path = path, .attribute = attribute};
    if (!key.isNull())
        change.key = key.datum();
    if (!value.isNull())
        change.value = value.datum();
    return change;
}

inline Agent::Change delOf(const std::string& path, const std::string& attribute, const Json& key) {
    Agent::Change change = setOf(path, attribute, key);
    change.op = Agent::Change::Op::del;
    return change;
}

/// The VRF red, identifier 3, with its FIBs and multicast.
inline std::vector<Agent::Change> vrfInUse() {
    return {setOf("routing/hardware/route/status", "vrfStatus", "red", json("{'vrfId': 3}")),
            {.path = "lumen/multicast/fib/ipv4/user/red"},
            {.path = "lumen/multicast/fib/ipv4/sparsemode/red"},
            setOf("routing/multicast/fibenabled/status", "vrfEnabled", "red", true)};
}

} // namespace AgentTest
