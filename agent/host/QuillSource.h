// The Quill tables as the source of routes (RouteSource.h): one table per VRF and route type in the table store,
// whose routes name their interfaces by indexes; rows beside them say which interface an index is.
#pragma once

#include "agent/host/PathShape.h"
#include "agent/host/RouteSource.h"

namespace Agent {

std::unique_ptr<RouteSource> makeQuillSource(const Stores& stores);
std::span<const PathShape> quillShapes();

} // namespace Agent
