#include "agent/Paths.h"

#include "agent/JsonRpc.h"
#include "agent/OperationError.h"
#include "records/LumenFib.h"
#include "state/Errors.h"

#include <algorithm>
#include <numeric>
#include <utility>
#include <vector>

namespace Agent {

namespace {

using Lumen::Multicast::Fib::MfibVrfName;
using LumenStatus = Lumen::Multicast::Fib::Status;
using Lumen::Multicast::Fib::StatusByVrf;

constexpr std::string_view quillTypes[] = {"static", "sparsemode"};
constexpr std::string_view lumenTypes[] = {"user", "sparsemode"};

constexpr PathShape shapeTable[] = {
    {"api/mroute/req", PathKind::mrouteRequests, "KestrelNat::NatMrouteRequestSet"},
    {"api/mroute/resp", PathKind::plugInOutput, "KestrelNat::NatMrouteResponseMap"},
    {"api/mgroup/req", PathKind::mgroupRequests, "KestrelNat::NatMgroupRequestSet"},
    {"api/mgroup/resp", PathKind::plugInOutput, "KestrelNat::NatMgroupResponseMap"},
    {"api/multicastSmStatus", PathKind::plugInOutput, "KestrelNat::MulticastSmStatus"},
    {"hardware/kestrel/nat/capability/config", PathKind::capability, "KestrelNat::CapabilityConfig"},
    {"routing/hardware/route/status", PathKind::vrfs, "Routing::Hardware::RouteStatus"},
    {"routing/multicast/fibenabled/status", PathKind::vrfEnabled,
     "Routing::Multicast::Fib::VrfEnabledStatus"},
    {"routing/multicast/routestatus/VRF/TYPE", PathKind::quillTable, "Quill::Multicast::Fib::Status",
     quillTypes},
    {"lumen/multicast/fib/ipv4/TYPE", PathKind::lumenFibs, "Lumen::Multicast::Fib::StatusByVrf", lumenTypes},
    {"lumen/multicast/fib/ipv4/TYPE/VRF", PathKind::lumenFib, "Lumen::Multicast::Fib::Status", lumenTypes},
    {"l3/mroutegroup/config", PathKind::plugInOutput, "KestrelCommon::MrouteGroup::MrouteColl"},
    {"l3/mroutegroup/status", PathKind::other, "KestrelCommon::MrouteGroup::MgroupColl"},
};

/// Takes the first component off a path.
std::string_view takeComponent(std::string_view& path) {
    const std::size_t slash = std::min(path.find('/'), path.size());
    const std::string_view component = path.substr(0, slash);
    path.remove_prefix(std::min(slash + 1, path.size()));
    return component;
}

/// Whether the path is of the shape; notes its VRF and TYPE components.
bool matches(const PathShape& shape, Place& place) {
    std::string_view wanted = shape.text;
    std::string_view given = place.path;
    if (shape.types.empty())
        return wanted == given;
    if (std::ranges::count(wanted, '/') != std::ranges::count(given, '/'))
        return false;
    while (!wanted.empty()) {
        const std::string_view name = takeComponent(wanted);
        const std::string_view component = takeComponent(given);
        if (name == "VRF" && !component.empty())
            place.vrf = component;
        else if (name == "TYPE" && std::ranges::find(shape.types, component) != shape.types.end())
            place.routeType = component;
        else if (name != component)
            return false;
    }
    return true;
}

/// Fewest insertions, removals and replacements of characters that turn one text into the other (Wagner,
/// Fischer 1974).
std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

/// How far a path is from a shape: leading components of the shape that it does not have, then the edit
/// distance, in which its own components stand for VRF and TYPE.
std::pair<std::ptrdiff_t, std::size_t> distance(const PathShape& shape, std::string_view path) {
    std::string like;
    std::ptrdiff_t common = 0;
    bool isCommon = true;
    std::string_view text = shape.text;
    std::string_view rest = path;
    while (!text.empty()) {
        const std::string_view name = takeComponent(text);
        const std::string_view component = takeComponent(rest);
        const bool stands = (name == "VRF" || name == "TYPE") && !component.empty();
        isCommon = isCommon && (stands || name == component);
        common += isCommon ? 1 : 0;
        like += like.empty() ? "" : "/";
        like += stands ? component : name;
    }
    return {-common, editDistance(like, path)};
}

[[noreturn]] void refuseUnknown(std::string_view path) {
    constexpr std::size_t comparedBytes = 200;
    const std::string_view given = path.substr(0, comparedBytes);
    const auto* nearest = std::ranges::min_element(
        shapeTable, {}, [&](const PathShape& shape) { return distance(shape, given); });
    std::string message =
        "unknown path \"" + std::string(path) + "\"; the nearest known one is " + std::string(nearest->text);
    std::string_view separator = ", where TYPE is ";
    for (const std::string_view type : nearest->types) {
        message += std::string(separator) + std::string(type);
        separator = " or ";
    }
    throw OperationError(RpcCode::invalidParams, message, {.path = std::string(path)});
}

std::string fibsPath(const Place& place) {
    return StatusByVrf::mountPath(L3::AddressFamily::ipv4, place.routeType);
}

/// A VRF's name as a component of a path.
L3::VrfName vrfName(const Place& place) {
    try {
        return L3::VrfName(place.vrf);
    } catch (const State::Error& error) {
        throw OperationError(RpcCode::invalidParams, error.what(), {.path = std::string(place.path)});
    }
}

} // namespace

std::span<const PathShape> Paths::shapes() {
    return shapeTable;
}

Place Paths::at(std::string_view path) const {
    for (const PathShape& shape : shapeTable) {
        Place place{.path = path, .shape = shape.text, .kind = shape.kind};
        if (matches(shape, place)) {
            place.type = State::EntityType::find(shape.entityType);
            place.entity = find(place);
            return place;
        }
    }
    for (const auto& store : {host_.database(), host_.tableStore(), host_.entityStore()}) {
        if (auto entity = store->entity(path)) {
            const State::EntityType& type = entity->entityType();
            return {.path = path, .type = &type, .entity = std::move(entity)};
        }
    }
    refuseUnknown(path);
}

State::Handle<State::Entity> Paths::find(const Place& place) const {
    switch (place.kind) {
    case PathKind::lumenFib: {
        const auto fibs = State::handleCast<StatusByVrf>(host_.entityStore()->entity(fibsPath(place)));
        return fibs ? fibs->status(MfibVrfName(vrfName(place))) : State::Handle<LumenStatus>();
    }
    case PathKind::quillTable:
        vrfName(place);
        return host_.tableStore()->entity(place.path);
    case PathKind::lumenFibs:
        return host_.entityStore()->entity(place.path);
    default:
        const auto found = host_.database()->entity(place.path);
        return found ? found : host_.tableStore()->entity(place.path);
    }
}

State::Handle<State::Entity> Paths::made(const Place& place) {
    const bool isFib = place.kind == PathKind::lumenFib;
    return place.type->create(isFib ? place.routeType : place.path.substr(place.path.rfind('/') + 1));
}

void Paths::enter(const Place& place, const State::Handle<State::Entity>& entity) const {
    if (place.kind == PathKind::lumenFib) {
        const auto fibs = State::handleCast<StatusByVrf>(
            host_.entityStore()->entityIs(fibsPath(place), StatusByVrf::type().name()));
        fibs->statusIs(MfibVrfName(vrfName(place)), State::handleCast<LumenStatus>(entity));
        return;
    }
    (place.kind == PathKind::lumenFibs ? host_.entityStore() : host_.tableStore())
        ->entityIs(place.path, entity);
}

} // namespace Agent
