// Where a VRF's Quill route tables are mounted.
#pragma once

#include "records/VrfName.h"

#include <string>
#include <string_view>

namespace KestrelNat {

/// "routing/multicast/routestatus/VRF/MODE"; `mode` is STATIC_MODE or SPARSE_MODE.
std::string formatMulticastRoutePath(const L3::VrfName& vrfName, std::string_view mode);

} // namespace KestrelNat
