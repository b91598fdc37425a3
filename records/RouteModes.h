// The route types by which routes are kept apart, as components of paths and in keys. Each source of routes
// has a static mode of its own name and the sparse mode.
#pragma once

namespace Routing::Multicast::Fib {

inline constexpr char staticMode[] = "static";     // of the Quill tables
inline constexpr char userMode[] = "user";         // the static mode of the Lumen FIBs
inline constexpr char sparseMode[] = "sparsemode"; // of both

} // namespace Routing::Multicast::Fib
