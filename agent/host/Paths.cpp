#include "agent/host/Paths.h"

#include "agent/host/Refusal.h"
#include "agent/host/RouteSource.h"
#include "records/MrouteGroup.h"
#include "records/NatStatus.h"
#include "records/RouteStatus.h"
#include "state/Errors.h"
#include "text/Nearest.h"
#include "text/Words.h"

#include <algorithm>
#include <vector>

namespace Agent {

namespace {

template <class T>
PathShape shapeOf(PathKind kind, State::Handle<State::Store> Stores::*store = &Stores::database) {
    return {.text = T::path, .kind = kind, .entityType = &T::type, .store = store};
}

std::vector<PathShape> makeShapes() {
    using namespace KestrelCommon::MrouteGroup;
    std::vector<PathShape> shapes;
    for (const Service& service : services()) {
        shapes.push_back({.text = service.requestPath,
                          .kind = PathKind::requests,
                          .entityType = service.requestEntity,
                          .service = &service});
        shapes.push_back(
            {.text = service.answerPath, .kind = PathKind::plugInOutput, .entityType = service.answerEntity});
    }
    shapes.push_back(shapeOf<KestrelNat::MulticastSmStatus>(PathKind::plugInOutput));
    shapes.push_back(shapeOf<KestrelNat::CapabilityConfig>(PathKind::capability));
    shapes.push_back(shapeOf<Routing::Hardware::RouteStatus>(PathKind::vrfs));
    shapes.push_back(shapeOf<Routing::Multicast::Fib::VrfEnabledStatus>(PathKind::vrfEnabled));
    for (const RouteSourceRow& source : routeSources())
        shapes.insert(shapes.end(), source.shapes.begin(), source.shapes.end());
    shapes.push_back(shapeOf<MrouteColl>(PathKind::plugInOutput, &Stores::tables));
    shapes.push_back(shapeOf<MgroupColl>(PathKind::other, &Stores::tables));
    return shapes;
}

// Takes the first component from a path.
std::string_view takeComponent(std::string_view& path) {
    const std::string_view component = path.substr(0, path.find('/'));
    path.remove_prefix(std::min(component.size() + 1, path.size()));
    return component;
}

using Components = std::vector<std::string_view>;

Components componentsOf(std::string_view path) {
    Components components(static_cast<std::size_t>(std::ranges::count(path, '/')) + 1);
    for (std::string_view& component : components)
        component = takeComponent(path);
    return components;
}

std::string_view parentOf(std::string_view path) {
    return path.substr(0, path.rfind('/'));
}

std::string_view lastOf(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

// Whether the path is of the shape; notes its VRF and TYPE components.
bool matches(const PathShape& shape, Place& place) {
    if (shape.modes.empty())
        return shape.text == place.path;
    std::string_view like = shape.text;
    std::string_view given = place.path;
    if (std::ranges::count(like, '/') != std::ranges::count(given, '/'))
        return false;
    while (!like.empty()) {
        const std::string_view name = takeComponent(like);
        const std::string_view component = takeComponent(given);
        if (name == "VRF") {
            place.vrf = component;
            if (component.empty())
                return false;
        } else if (name == "TYPE") {
            const auto mode = std::ranges::find(shape.modes, component);
            if (mode == shape.modes.end())
                return false;
            place.routeType = static_cast<RouteType>(mode - shape.modes.begin());
        } else if (name != component) {
            return false;
        }
    }
    return true;
}

// How far a path is from a shape: leading components of the shape that it does not have, then the edit distance,
// in which its own components stand for VRF and TYPE.
std::pair<std::ptrdiff_t, std::size_t> distance(const PathShape& shape, std::string_view path) {
    Components like = componentsOf(shape.text);
    Components given = componentsOf(path);
    given.resize(like.size());
    for (std::size_t i = 0; i < like.size(); ++i)
        if ((like[i] == "VRF" || like[i] == "TYPE") && !given[i].empty())
            like[i] = given[i];
    const auto common = std::ranges::mismatch(like, given).in1 - like.begin();
    return {-common, Text::editDistance(Text::joined(like, "/"), path)};
}

[[noreturn]] void refuseUnknown(std::string_view path) {
    constexpr std::size_t comparedBytes = 200;
    const std::string_view given = path.substr(0, comparedBytes);
    const auto shapes = Paths::shapes();
    const auto nearest =
        std::ranges::min_element(shapes, {}, [&](const PathShape& shape) { return distance(shape, given); });
    const std::string modes = Text::joined(nearest->modes, " or ");
    throw Refusal("unknown path \"" + std::string(path) + "\"; the nearest known one is " +
                      std::string(nearest->text) + (modes.empty() ? "" : ", where TYPE is " + modes),
                  {.path = std::string(path)});
}

// The attribute whose members an entity has at the paths below its own.
const State::Attribute& membersOf(const State::Entity& parent) {
    return **std::ranges::find(parent.entityType().attributes(), State::AttributeKind::members,
                               [](const auto& attribute) { return attribute->kind(); });
}

} // namespace

std::span<const PathShape> Paths::shapes() {
    static const std::vector<PathShape> shapes = makeShapes();
    return shapes;
}

const PathShape* Paths::shapeOf(std::string_view path) {
    const auto isOf = [path](const PathShape& shape) {
        Place place{.path = path};
        return matches(shape, place);
    };
    const auto found = std::ranges::find_if(shapes(), isOf);
    return found == shapes().end() ? nullptr : &*found;
}

Place Paths::at(std::string_view path) const {
    for (const PathShape& shape : shapes()) {
        Place place{.path = path};
        if (matches(shape, place)) {
            place.shape = &shape;
            place.type = &shape.entityType();
            place.entity = find(place);
            return place;
        }
    }
    for (const auto& store : {stores_.database, stores_.tables, stores_.entities})
        if (auto entity = store->entity(path)) {
            const State::EntityType& type = entity->entityType();
            return {.path = path, .type = &type, .entity = std::move(entity)};
        }
    refuseUnknown(path);
}

State::Handle<State::Entity> Paths::find(const Place& place) const {
    try {
        const State::Handle<State::Store>& store = stores_.*place.shape->store;
        if (!place.vrf.empty())
            static_cast<void>(L3::VrfName(place.vrf));
        if (!place.shape->isMember)
            return store->entity(place.path);
        const auto parent = store->entity(parentOf(place.path));
        return parent ? membersOf(*parent).member(*parent, State::Datum(lastOf(place.path)))
                      : State::Handle<State::Entity>();
    } catch (const State::Error& error) {
        throw Refusal(error.what(), {.path = std::string(place.path)});
    }
}

State::Handle<State::Entity> Paths::made(const Place& place) const {
    if (!place.shape->isMember)
        return place.type->create(lastOf(place.path));
    const Place parent = at(parentOf(place.path));
    const auto owner = parent.entity ? parent.entity : made(parent);
    return membersOf(*owner).memberMade(*owner, State::Datum(lastOf(place.path)));
}

void Paths::enter(const Place& place, const State::Handle<State::Entity>& entity) const {
    const State::Handle<State::Store>& store = stores_.*place.shape->store;
    if (!place.shape->isMember) {
        store->entityIs(place.path, entity);
        return;
    }
    const Place parent = at(parentOf(place.path));
    const auto owner = store->entityIs(parent.path, parent.type->name());
    membersOf(*owner).memberIs(*owner, State::Datum(lastOf(place.path)), entity);
}

void Paths::remove(const Place& place) const {
    const State::Handle<State::Store>& store = stores_.*place.shape->store;
    if (!place.shape->isMember)
        store->entityDel(place.path);
    else if (const auto owner = store->entity(parentOf(place.path)))
        membersOf(*owner).del(*owner, State::Datum(lastOf(place.path)));
}

} // namespace Agent
