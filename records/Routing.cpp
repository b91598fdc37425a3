// Routing records: IpGenRouteKey.h, RouteStatus.h.
#include "records/IpGenRouteKey.h"
#include "records/RouteStatus.h"
#include "state/Attribute.h"

namespace Routing::Multicast::Fib {

const State::EntityType& VrfEnabledStatus::type() {
    static const State::EntityType made("Routing::Multicast::Fib::VrfEnabledStatus",
                                        &State::createEntity<VrfEnabledStatus>,
                                        State::attributes(State::mapAttribute<VrfEnabledStatus>(
                                            "vrfEnabled", vrfEnabledAttribute, [](auto& entity) -> auto& {
                                                return entity.vrfEnabledCollection();
                                            })));
    return made;
}

STATE_VALUE_TYPE(IpGenRouteKey);
STATE_ENTITY_TYPE(VrfEnabledStatus);

} // namespace Routing::Multicast::Fib

namespace Routing::Hardware {

namespace {

State::Handle<VrfStatus> makeVrfStatus(const RouteStatus&, const L3::VrfName& vrfName) {
    return State::makeHandle<VrfStatus>(vrfName);
}

} // namespace

const State::EntityType& VrfStatus::type() {
    static const State::EntityType made(
        "Routing::Hardware::VrfStatus", nullptr,
        State::attributes(State::valueAttribute<VrfStatus, &VrfStatus::vrfId, &VrfStatus::vrfIdIs>(
            "vrfId", vrfIdAttribute)));
    return made;
}

void VrfStatus::vrfIdIs(std::uint32_t vrfId) {
    if (vrfId_ != vrfId) {
        vrfId_ = vrfId;
        publish(vrfIdAttribute);
    }
}

const State::EntityType& RouteStatus::type() {
    static const State::EntityType made(
        "Routing::Hardware::RouteStatus", &State::createEntity<RouteStatus>,
        State::attributes(State::membersAttribute<RouteStatus, &makeVrfStatus>(
            "vrfStatus", vrfStatusAttribute,
            [](auto& entity) -> auto& { return entity.vrfStatusCollection(); })));
    return made;
}

STATE_ENTITY_TYPE(VrfStatus);
STATE_ENTITY_TYPE(RouteStatus);

} // namespace Routing::Hardware
