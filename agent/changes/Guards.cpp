#include "agent/changes/Guards.h"

#include "agent/host/Refusal.h"
#include "records/IpGenRouteKey.h"
#include "records/NatMroute.h"
#include "records/VrfId.h"
#include "records/VrfName.h"
#include "state/Value.h"

#include <algorithm>

namespace Agent {

namespace {

// One change and what it is judged by.
struct Case {
    const Change& change;
    const Place& place;
    const GuardFacts& facts;

    bool isSet() const { return change.op == Change::Op::set; }
    template <class T>
    T key() const {
        return State::fromDatum<T>(*change.key);
    }

    // @param rule what is not allowed.
    // @param wayOut what to do instead; `raw` is added.
    [[noreturn]] void refuse(std::string_view field, const std::string& rule,
                             const std::string& wayOut) const {
        throw Refusal(
            RefusalKind::guard, rule + "; " + wayOut + " (raw lets it through)",
            {.path = std::string(place.path), .attribute = change.attribute, .field = std::string(field)});
    }
};

std::string quoted(std::string_view name) {
    return "\"" + std::string(name) + "\"";
}

// ---- requests -------------------------------------------------------------------------------------------

void checkRequest(const Case& given) {
    if (!given.isSet())
        return;
    const auto key = given.key<RequestKey>();
    if (key.sourceIp.isZero() && key.groupIp.isZero()) {
        given.refuse("sourceIp", "a request for any source and any group, (*,*), has no answer",
                     "name a source, a group or both");
    }
    if (key.intf.isEmpty()) {
        given.refuse("intf", "a request without an interface ends the plug-in's process",
                     "name the interface that asks");
    }
    if (key.vlanId == 0) {
        given.refuse("vlanId", "a request with VLAN 0 ends the plug-in's process",
                     "name the VLAN of the request");
    }
    if (given.facts.hasDuplicate(*given.place.shape->service, key)) {
        given.refuse(
            "type",
            "there is a request that differs by its type alone, and the plug-in can't tell them apart",
            "withdraw that one first");
    }
}

// ---- VRFs -----------------------------------------------------------------------------------------------

void checkVrfName(const Case& given, std::string_view name, std::string_view field) {
    if (name.empty())
        given.refuse(field, "a VRF has a name of at least one byte", "name it");
    if (!L3::VrfName::whyUnusable(name).empty())
        given.refuse(field,
                     "a VRF's name, " + State::valueText(std::string(name)) +
                         ", is part of paths: it holds no '/' and no control bytes",
                     "choose another name");
}

// A VRF is about to be added by the plug-in.
void checkAddition(const Case& given, std::string_view name, std::string_view field) {
    if (given.facts.egressFromAllVrfs() && given.facts.hasRequestsForRoutes()) {
        given.refuse(field,
                     "VRF " + quoted(name) +
                         " can't be added while egressFromAllVrfs is set and there are mroute requests: for "
                         "a moment the plug-in would find it without its tables",
                     "set egressFromAllVrfs to false first and to true again afterwards");
    }
}

void checkVrfEntry(const Case& given) {
    const std::string name = given.key<L3::VrfName>().stringValue();
    const GuardFacts::Vrf vrf = given.facts.vrf(name);
    const bool isAdded = given.facts.isAdded(name);
    if (!given.isSet()) {
        if (isAdded) {
            given.refuse("key",
                         "VRF " + quoted(name) +
                             " is in use: its entry can't be removed, the plug-in "
                             "would keep the VRF",
                         "turn multicast off in it first");
        }
        return;
    }
    checkVrfName(given, name, "key");
    const std::uint32_t id = GuardFacts::writtenId(given.change, vrf.id.value_or(0));
    if (isAdded && vrf.id == id)
        return;
    if (isAdded) {
        given.refuse("vrfId",
                     "VRF " + quoted(name) + " is in use: its identifier can't become " + std::to_string(id) +
                         ", which ends the plug-in's process",
                     "turn multicast off in it first");
    }
    if (id > L3::VrfId::max) {
        given.refuse("vrfId", "the identifier " + std::to_string(id) + " has more than 24 bits",
                     "choose one up to " + std::to_string(L3::VrfId::max));
    }
    if (!GuardFacts::isIdentified(name, id))
        return;
    if (const auto holder = given.facts.holderOf(id, name)) {
        given.refuse("vrfId",
                     "the identifier " + std::to_string(id) + " is that of VRF " + quoted(*holder) +
                         ", and answers go by identifiers",
                     "choose another one");
    }
    if (vrf.enabled)
        checkAddition(given, name, "vrfId");
}

void checkVrfEnabled(const Case& given) {
    const std::string name = given.key<L3::VrfName>().stringValue();
    const GuardFacts::Vrf vrf = given.facts.vrf(name);
    if (!given.isSet())
        return;
    checkVrfName(given, name, "key");
    if (!State::fromDatum<bool>(*given.change.value) || vrf.enabled)
        return;
    if (!vrf.hasBoth()) {
        given.refuse(
            "key",
            "multicast can't be turned on in VRF " + quoted(name) + ": there is no " +
                std::string(routeTypeText(vrf.hasTable[0] ? RouteType::sparse : RouteType::staticRoutes)) +
                " route table or FIB for it",
            "make both first (a set of their paths alone, or of a route below them)");
    }
    if (GuardFacts::isIdentified(name, vrf.id))
        checkAddition(given, name, "key");
}

void checkFibEntry(const Case& given) {
    const std::string name = given.key<L3::VrfName>().stringValue();
    if (given.isSet()) {
        checkVrfName(given, name, "key");
    } else if (given.facts.usesTables(given.place, name)) {
        given.refuse("key", "VRF " + quoted(name) + " is enabled: the plug-in would keep its FIB",
                     "turn multicast off in it first");
    }
}

void checkAllVrfs(const Case& given) {
    if (!State::fromDatum<bool>(*given.change.value) || given.facts.egressFromAllVrfs())
        return;
    if (const auto name = given.facts.incompleteVrf()) {
        given.refuse("value",
                     "egressFromAllVrfs can't be set while VRF " + quoted(*name) +
                         " lacks a route table or FIB",
                     "turn multicast off in it, make both and turn it on again");
    }
}

// ---- routes ---------------------------------------------------------------------------------------------

void checkRouteRow(const Case& given) {
    if (given.change.attribute == "route") {
        const auto key = given.key<RouteKey>();
        const bool isSource = !key.source.address().isIpv4();
        if (isSource || !key.group.address().isIpv4())
            given.refuse(isSource ? "source" : "group",
                         "routes have IPv4 keys: others would be taken for IPv4", "leave it out");
    }
    if (given.place.shape->rowFault == nullptr)
        return;
    const State::Datum nothing;
    const State::Datum& value = given.change.value ? *given.change.value : nothing;
    if (const auto fault = given.place.shape->rowFault(given.change.attribute, *given.change.key, value))
        given.refuse(fault->field, fault->rule, fault->wayOut);
}

} // namespace

void Guards::check(const Change& change, const Place& place, const GuardFacts& facts) const {
    const Case given{change, place, facts};
    const bool isTable = place.kind() == PathKind::routeTable;
    if (isTable && given.isSet())
        checkVrfName(given, place.vrf, "path");
    if (change.attribute.empty())
        return;
    switch (place.kind()) {
    case PathKind::requests:
        return checkRequest(given);
    case PathKind::vrfs:
        return checkVrfEntry(given);
    case PathKind::vrfEnabled:
        return checkVrfEnabled(given);
    case PathKind::routeTables:
        return checkFibEntry(given);
    case PathKind::capability:
        return checkAllVrfs(given);
    case PathKind::routeTable:
        return given.isSet() ? checkRouteRow(given) : void();
    case PathKind::plugInOutput:
        given.refuse(change.key ? "key" : "value",
                     std::string(place.path) + " is written by the plug-in alone",
                     "change what it is made from: requests, routes, VRFs or the group status");
    case PathKind::other:
        return;
    }
}

} // namespace Agent
