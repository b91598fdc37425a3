// Which VRFs there are. Routing::Hardware::RouteStatus ("routing/hardware/route/status") holds one VrfStatus
// per VRF with its identifier; Routing::Multicast::Fib::VrfEnabledStatus
// ("routing/multicast/fibenabled/status") says in which VRFs multicast routing is enabled. Both are written
// by the routing side and read by the plug-in.
#pragma once

#include "records/VrfName.h"
#include "state/Collection.h"
#include "state/Entity.h"

#include <cstdint>

namespace Routing::Hardware {

/// One VRF. The identifier is a plain number here: what reads it decides whether it fits (L3::VrfId).
class VrfStatus final : public State::Entity {
  public:
    static constexpr State::AttributeId vrfIdAttribute = 0;

    explicit VrfStatus(const L3::VrfName& vrfName)
        : vrfName_(vrfName) {}
    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    const L3::VrfName& vrfName() const { return vrfName_; }
    /// 0: not assigned yet, except for the VRF "default".
    std::uint32_t vrfId() const { return vrfId_; }
    void vrfIdIs(std::uint32_t vrfId);

  private:
    L3::VrfName vrfName_;
    std::uint32_t vrfId_ = 0;
};

class RouteStatus final : public State::Entity {
  public:
    static constexpr const char* path = "routing/hardware/route/status";

    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    STATE_MAP(0, vrfStatus, L3::VrfName, State::Handle<VrfStatus>,
              State::seedConstant("Routing::Hardware::RouteStatus::vrfStatus"))
};

} // namespace Routing::Hardware

namespace Routing::Multicast::Fib {

class VrfEnabledStatus final : public State::Entity {
  public:
    static constexpr const char* path = "routing/multicast/fibenabled/status";

    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    STATE_MAP(0, vrfEnabled, L3::VrfName, bool,
              State::seedConstant("Routing::Multicast::Fib::VrfEnabledStatus::vrfEnabled"))
};

} // namespace Routing::Multicast::Fib
