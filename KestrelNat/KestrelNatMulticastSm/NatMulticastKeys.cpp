#include "KestrelNat/KestrelNatMulticastSm/NatMulticastKeys.h"

#include "state/Fatal.h"
#include "state/ValueType.h"

namespace KestrelNat {

MrouteIntfAndVlanSet::MrouteIntfAndVlanSet(std::string_view) {
    State::fatal("No String constructor for MrouteIntfAndVlanSet - has collection", __FILE__, __LINE__,
                 __PRETTY_FUNCTION__);
}

STATE_VALUE_TYPE(NatMcastRouteKey);
STATE_VALUE_TYPE(MrouteSourceAndGroup);
STATE_VALUE_TYPE(VrfIdMrouteSourceAndGroup);
STATE_VALUE_TYPE(MrouteIntfAndVlan);
STATE_VALUE_TYPE(MrouteIntfAndVlanSet);

} // namespace KestrelNat
