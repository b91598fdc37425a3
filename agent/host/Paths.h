// What the agent's paths stand for: the one table of path shapes, and the way from a path to the entity there.
//
// A path is known if it is of one of the shapes, whether or not an entity stands there yet (a VRF's table, a FIB),
// or if one of the stores holds an entity under it. What has a shape is made on the first write below it. The
// table is put together of the paths of records, of the services (Services.h) and of the sources of routes
// (RouteSource.h).
#pragma once

#include "agent/host/PathShape.h"

#include <span>
#include <string>
#include <string_view>

namespace Agent {

/// A path, looked up.
struct Place {
    std::string_view path;                         // the caller's
    const PathShape* shape = nullptr;              // null for a path outside the table
    const State::EntityType* type = nullptr;       // never null
    State::Handle<State::Entity> entity = {};      // null: nothing there yet
    std::string_view vrf = {};                     // the VRF component, where the shape has one
    RouteType routeType = RouteType::staticRoutes; // what the TYPE component means, likewise

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
    /// Takes the entity of a place out of its store; who holds it keeps it.
    void remove(const Place& place) const;

    static std::span<const PathShape> shapes();
    /// The shape that a path is of; null for a path outside the table.
    static const PathShape* shapeOf(std::string_view path);

  private:
    State::Handle<State::Entity> find(const Place& place) const;

    Stores stores_;
};

} // namespace Agent
