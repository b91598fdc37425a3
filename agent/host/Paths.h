// What the agent's paths stand for: the one table of path shapes, and the way from a path to the entity there.
//
// A path is known if it is of one of the shapes, whether or not an entity stands there yet (a VRF's table, a FIB),
// or if one of the stores holds an entity under it. What has a shape is made on the first write below it. The
// table is put together of the paths of records, of the services (Services.h) and of the sources of routes
// (RouteSource.h).
#pragma once

#include "agent/host/RouteSource.h"
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

/// A path, looked up.
struct Place {
    std::string_view path;                         // the caller's
    const PathShape* shape = nullptr;              // null for a path outside the table
    const State::EntityType* type = nullptr;       // never null
    State::Handle<State::Entity> entity = {};      // null: nothing there yet
    std::string_view vrf = {};                     // the VRF component, where the shape has one
    std::string_view mode = {};                    // the TYPE component, likewise
    RouteType routeType = RouteType::staticRoutes; // what TYPE means

    PathKind kind() const { return shape == nullptr ? PathKind::other : shape->kind; }
};

class Paths {
  public:
    explicit Paths(Stores stores)
        : stores_(std::move(stores)) {}

    /// @throws Refusal that names the path and the nearest known shape.
    Place at(std::string_view path) const;

    /// Makes the entity of a place that has none, without entering it in its store: it is filled in first.
    State::Handle<State::Entity> made(const Place& place) const;
    /// Enters it, and what it is a member of before it.
    void enter(const Place& place, const State::Handle<State::Entity>& entity) const;

    static std::span<const PathShape> shapes();

  private:
    State::Handle<State::Entity> find(const Place& place) const;

    Stores stores_;
};

} // namespace Agent
