// Reflection and attributes of the NAT records: NatMroute.h, NatMgroup.h, NatStatus.h.
#include "records/NatMgroup.h"
#include "records/NatMroute.h"
#include "records/NatStatus.h"
#include "state/Attribute.h"

namespace KestrelNat {

const State::EntityType& NatMrouteRequestSet::type() {
    static const State::EntityType made("KestrelNat::NatMrouteRequestSet",
                                        &State::createEntity<NatMrouteRequestSet>,
                                        State::attributes(State::setAttribute<NatMrouteRequestSet>(
                                            "mrouteReq", mrouteReqAttribute, [](auto& entity) -> auto& {
                                                return entity.mrouteReqCollection();
                                            })));
    return made;
}

const State::EntityType& NatMrouteResponseMap::type() {
    static const State::EntityType made("KestrelNat::NatMrouteResponseMap",
                                        &State::createEntity<NatMrouteResponseMap>,
                                        State::attributes(State::mapAttribute<NatMrouteResponseMap>(
                                            "mrouteResp", mrouteRespAttribute, [](auto& entity) -> auto& {
                                                return entity.mrouteRespCollection();
                                            })));
    return made;
}

const State::EntityType& NatMgroupRequestSet::type() {
    static const State::EntityType made("KestrelNat::NatMgroupRequestSet",
                                        &State::createEntity<NatMgroupRequestSet>,
                                        State::attributes(State::setAttribute<NatMgroupRequestSet>(
                                            "mgroupReq", mgroupReqAttribute, [](auto& entity) -> auto& {
                                                return entity.mgroupReqCollection();
                                            })));
    return made;
}

const State::EntityType& NatMgroupResponseMap::type() {
    static const State::EntityType made("KestrelNat::NatMgroupResponseMap",
                                        &State::createEntity<NatMgroupResponseMap>,
                                        State::attributes(State::mapAttribute<NatMgroupResponseMap>(
                                            "mgroupId", mgroupIdAttribute, [](auto& entity) -> auto& {
                                                return entity.mgroupIdCollection();
                                            })));
    return made;
}

const State::EntityType& MulticastSmStatus::type() {
    static const State::EntityType made(
        "KestrelNat::MulticastSmStatus", &State::createEntity<MulticastSmStatus>,
        State::attributes(State::valueAttribute<MulticastSmStatus, &MulticastSmStatus::mrouteSmReady,
                                                &MulticastSmStatus::mrouteSmReadyIs>("mrouteSmReady",
                                                                                     mrouteSmReadyAttribute),
                          State::valueAttribute<MulticastSmStatus, &MulticastSmStatus::mgroupSmReady,
                                                &MulticastSmStatus::mgroupSmReadyIs>(
                              "mgroupSmReady", mgroupSmReadyAttribute)));
    return made;
}

void MulticastSmStatus::mrouteSmReadyIs(bool ready) {
    if (mrouteSmReady_ != ready) {
        mrouteSmReady_ = ready;
        publish(mrouteSmReadyAttribute);
    }
}

void MulticastSmStatus::mgroupSmReadyIs(bool ready) {
    if (mgroupSmReady_ != ready) {
        mgroupSmReady_ = ready;
        publish(mgroupSmReadyAttribute);
    }
}

const State::EntityType& CapabilityConfig::type() {
    static const State::EntityType made(
        "KestrelNat::CapabilityConfig", &State::createEntity<CapabilityConfig>,
        State::attributes(State::valueAttribute<CapabilityConfig, &CapabilityConfig::egressFromAllVrfs,
                                                &CapabilityConfig::egressFromAllVrfsIs>(
            "egressFromAllVrfs", egressFromAllVrfsAttribute)));
    return made;
}

void CapabilityConfig::egressFromAllVrfsIs(bool all) {
    if (egressFromAllVrfs_ != all) {
        egressFromAllVrfs_ = all;
        publish(egressFromAllVrfsAttribute);
    }
}

STATE_ENTITY_TYPE(NatMrouteRequestSet);
STATE_ENTITY_TYPE(NatMrouteResponseMap);
STATE_ENTITY_TYPE(NatMgroupRequestSet);
STATE_ENTITY_TYPE(NatMgroupResponseMap);
STATE_ENTITY_TYPE(MulticastSmStatus);
STATE_ENTITY_TYPE(CapabilityConfig);

} // namespace KestrelNat
