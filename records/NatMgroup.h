// The two ends of the mgroup service: the requests, written by the NAT feature at "api/mgroup/req", and the
// hardware multicast group ids, written by the mgroup state machine at "api/mgroup/resp".
#pragma once

#include "records/NatMrouteKey.h"
#include "state/Collection.h"
#include "state/Entity.h"

#include <cstdint>

namespace KestrelNat {

class NatMgroupRequestSet final : public State::Entity {
  public:
    static constexpr const char* path = "api/mgroup/req";

    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    STATE_SET(0, mgroupReq, NatMrouteKey, 2911353636U)
};

class NatMgroupResponseMap final : public State::Entity {
  public:
    static constexpr const char* path = "api/mgroup/resp";

    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    STATE_MAP(0, mgroupId, NatMrouteKey, std::uint32_t,
              State::seedConstant("KestrelNat::NatMgroupResponseMap::mgroupId"))
};

} // namespace KestrelNat
