#include "KestrelNat/KestrelNatMulticastSm/NatMrouteRouteMap.h"

#include "state/TypeRegistry.h"

namespace KestrelNat {

namespace {

State::Handle<NatMrouteRouteMap> makeRouteMap() {
    return State::makeHandle<NatMrouteRouteMap>();
}

} // namespace

STATE_FACTORY("KestrelNat::NatMrouteRouteMap", &makeRouteMap);

} // namespace KestrelNat
