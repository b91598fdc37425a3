// The table of the sources of routes.
#pragma once

#include "agent/host/PathShape.h"
#include "agent/host/RouteSource.h"

namespace Agent {

/// A row of the table of sources.
struct RouteSourceRow {
    std::string_view name;
    bool toggle; // the value of the toggle that picks it
    std::unique_ptr<RouteSource> (*make)(const Stores& stores);
    std::span<const PathShape> shapes; // its paths, which can be read and written whatever source is in force
};

std::span<const RouteSourceRow> routeSources();

} // namespace Agent
