// A family of the agent's paths: how they are written, and what stands there. The table of all is in Paths.h; each
// source of routes has its own.
#pragma once

#include "agent/host/Services.h"
#include "agent/host/Stores.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Agent {

/// What stands at a path, as far as anybody treats it in a way of its own.
enum class PathKind : std::uint8_t {
    vrfs,         // VRF names and identifiers
    vrfEnabled,   // in which VRFs multicast is enabled
    routeTable,   // the route table or FIB of a VRF and route type
    routeTables,  // an entity whose members are the FIBs of a route type
    capability,   // egressFromAllVrfs
    requests,     // of a service
    plugInOutput, // written by the plug-in alone
    other,
};

/// Why a row of a source of routes can't be: the field that is wrong, the rule, what to do instead.
struct RowFault {
    std::string field;
    std::string rule;
    std::string wayOut;
};

/// A family of paths. Components in capitals stand for others: VRF for any VRF's name, TYPE for one of `modes`.
struct PathShape {
    std::string_view text;
    PathKind kind = PathKind::other;
    const State::EntityType& (*entityType)() = nullptr;
    State::Handle<State::Store> Stores::*store = &Stores::database;
    bool isMember = false;                   // of the entity at the path without its last component
    std::span<const char* const> modes = {}; // what TYPE may be: of static routes, of sparse ones
    const Service* service = nullptr;        // of requests
    std::string_view source = {};            // of a route table: the name of its source
    /// What its source refuses in rows whose types are in order; null: nothing.
    std::optional<RowFault> (*rowFault)(std::string_view attribute, const State::Datum& key,
                                        const State::Datum& value) = nullptr;
};

} // namespace Agent
