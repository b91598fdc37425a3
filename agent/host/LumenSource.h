// The Lumen FIBs as the source of routes (RouteSource.h): one FIB per VRF and route type, all FIBs of a type in one
// entity of the entity store; routes hold their interfaces themselves, and say whether they are ready.
#pragma once

#include "agent/host/PathShape.h"
#include "agent/host/RouteSource.h"

namespace Agent {

std::unique_ptr<RouteSource> makeLumenSource(const Stores& stores);
std::span<const PathShape> lumenShapes();

} // namespace Agent
