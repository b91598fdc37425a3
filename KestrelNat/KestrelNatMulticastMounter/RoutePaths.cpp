#include "KestrelNat/KestrelNatMulticastMounter/RoutePaths.h"

#include "records/QuillFib.h"

namespace KestrelNat {

std::string formatMulticastRoutePath(const L3::VrfName& vrfName, std::string_view mode) {
    return Quill::Multicast::Fib::Status::mountPath(vrfName, mode);
}

} // namespace KestrelNat
