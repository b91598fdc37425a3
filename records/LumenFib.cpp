#include "records/LumenFib.h"

#include "state/Attribute.h"

namespace Lumen::Multicast::Fib {

namespace {

State::Handle<Route> makeRoute(const Status&, const IpGenRouteKey& key) {
    return State::makeHandle<Route>(key);
}

State::Handle<Status> makeStatus(const StatusByVrf& owner, const MfibVrfName&) {
    return State::makeHandle<Status>(owner.name());
}

} // namespace

const State::EntityType& Route::type() {
    static const State::EntityType made(
        "Lumen::Multicast::Fib::Route", nullptr,
        State::attributes(
            State::valueAttribute<Route, &Route::intf, &Route::intfIs>("intf", intfAttribute),
            State::valueAttribute<Route, &Route::ready, &Route::readyIs>("ready", readyAttribute),
            State::valueAttribute<Route, &Route::version, &Route::versionIs>("version", versionAttribute)));
    return made;
}

void Route::intfIs(L3::IntfSet intf) {
    if (intf_ != intf) {
        intf_ = std::move(intf);
        publish(intfAttribute);
    }
}

void Route::readyIs(std::uint32_t ready) {
    if (ready_ != ready) {
        ready_ = ready;
        publish(readyAttribute);
    }
}

void Route::versionIs(std::uint32_t version) {
    if (version_ != version) {
        version_ = version;
        publish(versionAttribute);
    }
}

const State::EntityType& Status::type() {
    static const State::EntityType made(
        "Lumen::Multicast::Fib::Status", &State::createEntity<Status>,
        State::attributes(State::membersAttribute<Status, &makeRoute>(
            "route", routeAttribute, [](auto& entity) -> auto& { return entity.routeCollection(); })));
    return made;
}

std::string StatusByVrf::mountPath(L3::AddressFamily family, std::string_view name) {
    return std::string("lumen/multicast/fib/") + (family == L3::AddressFamily::ipv4 ? "ipv4/" : "ipv6/") +
           std::string(name);
}

const State::EntityType& StatusByVrf::type() {
    static const State::EntityType made(
        "Lumen::Multicast::Fib::StatusByVrf", &State::createEntity<StatusByVrf>,
        State::attributes(State::membersAttribute<StatusByVrf, &makeStatus>(
            "status", statusAttribute, [](auto& entity) -> auto& { return entity.statusCollection(); })));
    return made;
}

STATE_VALUE_TYPE(MfibVrfName);
STATE_ENTITY_TYPE(Route);
STATE_ENTITY_TYPE(Status);
STATE_ENTITY_TYPE(StatusByVrf);

} // namespace Lumen::Multicast::Fib
