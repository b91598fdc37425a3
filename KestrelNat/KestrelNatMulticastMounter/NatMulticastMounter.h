// KestrelNat::NatMulticastMounter: the plug-in's entry, the one class that an agent makes from the library,
// by the type name "KestrelNat::NatMulticastMounter" and with its own name. It declares what the plug-in
// mounts and, when the mounts are complete, builds the route map and the three state machines; everything
// else hangs off those four. Destroying it ends the plug-in's work; nothing is unmounted on the way out.
#pragma once

#include "KestrelNat/KestrelNatMulticastMounter/NatVrfDirSm.h"
#include "KestrelNat/KestrelNatMulticastSm/NatMgroupSm.h"
#include "KestrelNat/KestrelNatMulticastSm/NatMrouteRouteMap.h"
#include "KestrelNat/KestrelNatMulticastSm/NatMrouteSm.h"
#include "state/MounterBase.h"

#include <string_view>

namespace KestrelNat {

class NatMulticastMounter final : public KestrelLib::MounterBase {
  public:
    explicit NatMulticastMounter(std::string_view name)
        : MounterBase(name) {}
    ~NatMulticastMounter() override;

    void doInit() override;
    void doMountsComplete(const State::MountStatus& status,
                          const State::Handle<State::EntityManager>& em) override;

    /// The route map, made on first use; one that is there is never replaced.
    State::Handle<NatMrouteRouteMap> mrouteRouteMapIs();
    /// Clears the handle and hands the old one back, null if there was none.
    State::Handle<NatMrouteRouteMap> mrouteRouteMapDel();
    const State::Handle<NatMrouteRouteMap>& mrouteRouteMap() const { return mrouteRouteMap_; }

    const State::Handle<NatVrfDirSm>& natVrfDirSm() const { return natVrfDirSm_; }
    void natVrfDirSmIs(State::Handle<NatVrfDirSm> machine) { natVrfDirSm_ = std::move(machine); }
    const State::Handle<NatMrouteSm>& mrouteSm() const { return mrouteSm_; }
    void mrouteSmIs(State::Handle<NatMrouteSm> machine) { mrouteSm_ = std::move(machine); }
    const State::Handle<NatMgroupSm>& mgroupSm() const { return mgroupSm_; }
    void mgroupSmIs(State::Handle<NatMgroupSm> machine) { mgroupSm_ = std::move(machine); }

  private:
    State::Handle<NatMrouteRouteMap> mrouteRouteMap_;
    State::Handle<NatVrfDirSm> natVrfDirSm_;
    State::Handle<NatMrouteSm> mrouteSm_;
    State::Handle<NatMgroupSm> mgroupSm_;
};

} // namespace KestrelNat
