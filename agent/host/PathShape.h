// A family of the agent's paths: how they are written, and what stands there. The table of all is in Paths.h; each
// source of routes has its own.
#pragma once

#include "agent/host/Change.h"
#include "agent/host/Services.h"
#include "agent/host/Stores.h"

#include <cstdint>
#include <span>
#include <string_view>

namespace Agent {

/// The two tables that a VRF has.
enum class RouteType : std::uint8_t { staticRoutes, sparse };
constexpr RouteType routeTypes[] = {RouteType::staticRoutes, RouteType::sparse};
/// "static" or "sparse", as people write it.
constexpr std::string_view routeTypeText(RouteType type) {
    return type == RouteType::sparse ? "sparse" : "static";
}

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

/// A family of paths. Components in capitals stand for others: VRF for any VRF's name, TYPE for one of `modes`.
struct PathShape {
    std::string_view text;
    PathKind kind = PathKind::other;
    const State::EntityType& (*entityType)() = nullptr;
    State::Handle<State::Store> Stores::*store = &Stores::database;
    bool isMember = false;                   // of the entity at the path without its last component
    std::span<const char* const> modes = {}; // what TYPE may be, by RouteType
    const Service* service = nullptr;        // of requests
    std::string_view source = {};            // of a route table: the name of its source
    /// Refuses, as a guard, rows whose types are in order but that its source can't have; null: there are none.
    void (*checkRow)(const Change& change) = nullptr;
};

} // namespace Agent
