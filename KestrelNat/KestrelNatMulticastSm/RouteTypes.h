// Route types and the toggle that chooses the source of multicast routes. Both are fixed while the library
// loads and never change for the life of the process.
//
// STATIC_MODE stays "static" whatever the toggle says: it names paths and keys of the Quill tables. The
// static route type that the state machines walk follows the toggle: "user" with the Lumen source, "static"
// with the Quill source.
#pragma once

#include <array>
#include <string>

namespace KestrelNat {

extern const char* const STATIC_MODE; // "static"
extern const char* const SPARSE_MODE; // "sparsemode"

/// Whether the Lumen FIB is the source of routes (toggle "KestrelNatMfibLumen" in "KestrelNat.json", default
/// on); otherwise the Quill tables are.
bool toggleKestrelNatMfibLumenEnabled();

const std::string& staticRouteType();
const std::string& sparseRouteType();

/// The route types in the order in which they are always visited: static, sparse.
using RouteTypeList = std::array<std::string, 2>;
const RouteTypeList& routeTypes();

} // namespace KestrelNat
