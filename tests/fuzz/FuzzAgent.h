// An agent in the fuzzer's process, with the real plug-in and a chip that works at once, and what can be read of it.
#pragma once

#include "agent/changes/Operations.h"
#include "agent/host/SoftwareChip.h"
#include "agent/json/Json.h"
#include "agent/language/Language.h"
#include "state/Toggle.h"
#include "state/Trace.h"

#include <array>
#include <cstddef>
#include <memory>
#include <string>

class FuzzAgent {
  public:
    /// @param isLumen the source of routes, the same for all agents of a process.
    explicit FuzzAgent(bool isLumen) {
        State::toggleOverrideIs(Agent::Host::sourceToggle, isLumen);
        State::traceSinkIs([](void*, const State::TraceRecord&) {}, nullptr);
        host.load(KESTREL_LIB_DIR "/libKestrelNatMulticastMounter.so");
        host.start();
    }
    ~FuzzAgent() {
        log.close();
        host.stop();
    }
    FuzzAgent(const FuzzAgent&) = delete;
    FuzzAgent& operator=(const FuzzAgent&) = delete;

    bool isChanged() const { return operations.counters().changes != 0; }

    /// All that stands in the stores.
    std::string state() const {
        std::string text;
        for (const auto& store : {host.stores().database, host.stores().tables, host.stores().entities})
            for (const auto& [path, entity] : store->entities())
                append(text += path, *entity);
        return text;
    }

    Agent::Host host;
    Agent::Operations operations{host};
    Agent::AnswerLog log{host.stores(), operations.names()};
    Agent::SoftwareChip chip{host.stores(), {}};
    Agent::Language language{operations, [] {}};

  private:
    static void append(std::string& text, const State::Entity& entity) {
        const State::EntityType& type = entity.entityType();
        text += Agent::Json::textOf(type.fields(entity));
        for (const auto& attribute : type.attributes())
            if (attribute->kind() != State::AttributeKind::value)
                attribute->walk(entity, nullptr, [&](const State::Datum& key, const State::Datum& value) {
                    text += Agent::Json::textOf(key) + Agent::Json::textOf(value);
                    if (attribute->kind() == State::AttributeKind::members)
                        append(text, *attribute->member(entity, key));
                    return true;
                });
    }
};

/// The agent for the next input, as it is after its start: made anew if an input has changed the last one. The trace is
/// empty.
template <class MadeAgent>
MadeAgent& freshAgent() {
    static std::unique_ptr<MadeAgent> agent;
    static std::array<std::byte, 65536> trace;
    State::traceRingIs(trace);
    if (agent == nullptr || agent->isChanged()) {
        agent.reset();
        agent = std::make_unique<MadeAgent>();
    }
    return *agent;
}
