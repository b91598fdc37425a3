// KestrelNat::NatMrouteRouteMap: the directory through which the VRF directory state machine, its only
// writer, hands route tables to the mroute state machine, its only reader. Made by the mounter, mounted
// nowhere. One of `mrouteRoute` and `mfib` is in use in a process; the other stays empty. A handle in `mfib`
// holds a use of the FIB while it is there.
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMulticastKeys.h"
#include "records/LumenFib.h"
#include "records/QuillFib.h"
#include "records/VrfName.h"
#include "state/Collection.h"

namespace KestrelNat {

class NatMrouteRouteMap final : public State::Publisher {
  public:
    /// Where subscribers attach.
    const State::Publisher& publisher() const { return *this; }

    STATE_MAP(0, vrfNameToId, L3::VrfName, L3::VrfId,
              State::seedConstant("KestrelNat::NatMrouteRouteMap::vrfNameToId"))
    STATE_MAP(1, mrouteRoute, NatMcastRouteKey, State::Handle<Quill::Multicast::Fib::Status>,
              State::seedConstant("KestrelNat::NatMrouteRouteMap::mrouteRoute"))
    STATE_MAP(2, mfib, NatMcastRouteKey, State::Handle<Lumen::Multicast::Fib::Status>,
              State::seedConstant("KestrelNat::NatMrouteRouteMap::mfib"))
};

} // namespace KestrelNat
