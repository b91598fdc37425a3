// What the agent's paths stand for: the table of known path shapes, and the way from a path to the entity
// there.
//
// A path is known if it is of one of the shapes, whether or not an entity stands there yet (a VRF's table, a
// FIB), or if one of the stores holds an entity under it. What has a shape is made on the first write below
// it. Operations owns the one Paths. Read next: Guards.h, which tells shapes apart by their kind.
#pragma once

#include "agent/Host.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace Agent {

/// What stands at a path, as far as the guards care.
enum class PathKind : std::uint8_t {
    vrfs,           // VRF names and identifiers
    vrfEnabled,     // in which VRFs multicast is enabled
    quillTable,     // the route table of a VRF and route type
    lumenFibs,      // the FIBs of a route type
    lumenFib,       // one of them
    capability,     // egressFromAllVrfs
    mrouteRequests, //
    mgroupRequests, //
    plugInOutput,   // written by the plug-in alone
    other,
};

/// A family of paths. Components in capitals stand for others: VRF for any VRF's name, TYPE for one of
/// `types`.
struct PathShape {
    std::string_view text;
    PathKind kind;
    std::string_view entityType;
    std::span<const std::string_view> types = {}; // what TYPE may be
};

/// A path, looked up.
struct Place {
    std::string_view path;       // the caller's
    std::string_view shape = {}; // the shape's text; empty for a path outside the table
    PathKind kind = PathKind::other;
    const State::EntityType* type = nullptr;  // never null
    State::Handle<State::Entity> entity = {}; // null: nothing there yet
    std::string_view vrf = {};                // the VRF and TYPE components, where the shape has them
    std::string_view routeType = {};
};

class Paths {
  public:
    /// @param host outlives it.
    explicit Paths(const Host& host)
        : host_(host) {}

    /// @throws OperationError that names the path and the nearest known shape.
    Place at(std::string_view path) const;

    /// Makes the entity of a place that has none, without entering it in its store: it is filled in first.
    static State::Handle<State::Entity> made(const Place& place);
    /// Enters it, and a FIB's collection before the FIB.
    void enter(const Place& place, const State::Handle<State::Entity>& entity) const;

    static std::span<const PathShape> shapes();

  private:
    State::Handle<State::Entity> find(const Place& place) const;

    const Host& host_;
};

} // namespace Agent
