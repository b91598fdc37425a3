#include "KestrelNat/KestrelNatMulticastMounter/RoutePaths.h"

namespace KestrelNat {

std::string formatMulticastRoutePath(const L3::VrfName& vrfName, std::string_view mode) {
    return "routing/multicast/routestatus/" + vrfName.stringValue() + "/" + std::string(mode);
}

} // namespace KestrelNat
