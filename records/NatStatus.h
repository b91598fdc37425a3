// Two small entities around the plug-in: its ready flags ("api/multicastSmStatus"), written by the state
// machines, and the chip's capability configuration ("hardware/kestrel/nat/capability/config"), which it
// reads.
#pragma once

#include "state/Entity.h"

namespace KestrelNat {

/// Each flag becomes true once its state machine has handled all requests that were there at its start;
/// nothing in the plug-in sets it back.
class MulticastSmStatus final : public State::Entity {
  public:
    static constexpr State::AttributeId mrouteSmReadyAttribute = 0;
    static constexpr State::AttributeId mgroupSmReadyAttribute = 1;

    static constexpr const char* path = "api/multicastSmStatus";

    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    bool mrouteSmReady() const { return mrouteSmReady_; }
    void mrouteSmReadyIs(bool ready);
    bool mgroupSmReady() const { return mgroupSmReady_; }
    void mgroupSmReadyIs(bool ready);

  private:
    bool mrouteSmReady_ = false;
    bool mgroupSmReady_ = false;
};

class CapabilityConfig final : public State::Entity {
  public:
    static constexpr State::AttributeId egressFromAllVrfsAttribute = 0;

    static constexpr const char* path = "hardware/kestrel/nat/capability/config";

    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    /// Whether answers gather outgoing interfaces from every VRF instead of the request's own.
    bool egressFromAllVrfs() const { return egressFromAllVrfs_; }
    void egressFromAllVrfsIs(bool all);

  private:
    bool egressFromAllVrfs_ = false;
};

} // namespace KestrelNat
