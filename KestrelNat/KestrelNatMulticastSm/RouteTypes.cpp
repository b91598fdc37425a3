#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"

#include "records/RouteModes.h"
#include "state/Toggle.h"

namespace KestrelNat {

const char* const STATIC_MODE = Routing::Multicast::Fib::staticMode;
const char* const SPARSE_MODE = Routing::Multicast::Fib::sparseMode;

bool toggleKestrelNatMfibLumenEnabled() {
    static const bool enabled = State::getToggleState("KestrelNatMfibLumen", "KestrelNat.json", true);
    return enabled;
}

namespace {

// Asks for the toggle while the library loads.
const RouteTypeList loadedRouteTypes{
    toggleKestrelNatMfibLumenEnabled() ? Routing::Multicast::Fib::userMode : STATIC_MODE, SPARSE_MODE};

} // namespace

const std::string& staticRouteType() {
    return loadedRouteTypes[0];
}
const std::string& sparseRouteType() {
    return loadedRouteTypes[1];
}
const RouteTypeList& routeTypes() {
    return loadedRouteTypes;
}

} // namespace KestrelNat
