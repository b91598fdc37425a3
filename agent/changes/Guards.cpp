#include "agent/changes/Guards.h"

#include "state/Value.h"

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

    // Refuses the change if it breaks the rule.
    void refuseIf(bool isBroken, std::string_view field, std::string_view rule,
                  std::string_view wayOut) const {
        if (isBroken)
            refuseByGuard(change, field, rule, wayOut);
    }
};

std::string vrfCalled(std::string_view name) {
    return "VRF \"" + std::string(name) + "\"";
}

// ---- requests -------------------------------------------------------------------------------------------

void checkRequest(const Case& given) {
    if (!given.isSet())
        return;
    const auto key = given.key<RequestKey>();
    given.refuseIf(key.sourceIp.isZero() && key.groupIp.isZero(), "sourceIp",
                   "a request for any source and any group, (*,*), has no answer",
                   "name a source, a group or both");
    given.refuseIf(key.intf.isEmpty(), "intf", "a request without an interface ends the plug-in's process",
                   "name the interface that asks");
    given.refuseIf(key.vlanId == 0, "vlanId", "a request with VLAN 0 ends the plug-in's process",
                   "name the VLAN of the request");
    given.refuseIf(given.facts.hasDuplicate(*given.place.shape->service, key), "type",
                   "there is a request that differs by its type alone, and the plug-in can't tell them apart",
                   "withdraw that one first");
}

// ---- VRFs -----------------------------------------------------------------------------------------------

void checkVrfName(const Case& given, std::string_view name, std::string_view field) {
    given.refuseIf(name.empty(), field, "a VRF has a name of at least one byte", "name it");
    if (!L3::VrfName::whyUnusable(name).empty())
        refuseByGuard(given.change, field,
                      "a VRF's name, " + State::valueText(std::string(name)) +
                          ", is part of paths: it holds no '/' and no control bytes",
                      "choose another name");
}

// A VRF is about to be added by the plug-in.
void checkAddition(const Case& given, std::string_view name, std::string_view field) {
    given.refuseIf(given.facts.egressFromAllVrfs() && given.facts.hasRequestsForRoutes(), field,
                   vrfCalled(name) +
                       " can't be added while egressFromAllVrfs is set and there are mroute requests: for "
                       "a moment the plug-in would find it without its tables",
                   "set egressFromAllVrfs to false first and to true again afterwards");
}

void checkVrfEntry(const Case& given) {
    const std::string name = given.key<L3::VrfName>().stringValue();
    const GuardFacts::Vrf vrf = given.facts.vrf(name);
    const std::string inUse = vrfCalled(name) + " is in use: its ";
    const char* const turnOff = "turn multicast off in it first";
    if (!given.isSet()) {
        given.refuseIf(vrf.isAdded, "key", inUse + "entry can't be removed, the plug-in would keep the VRF",
                       turnOff);
        return;
    }
    checkVrfName(given, name, "key");
    const std::uint32_t id = GuardFacts::writtenId(given.change, vrf.id.value_or(0));
    if (vrf.isAdded && vrf.id == id)
        return;
    given.refuseIf(vrf.isAdded, "vrfId",
                   inUse + "identifier can't become " + std::to_string(id) +
                       ", which ends the plug-in's process",
                   turnOff);
    given.refuseIf(id > L3::VrfId::max, "vrfId",
                   "the identifier " + std::to_string(id) + " has more than 24 bits",
                   "choose one up to " + std::to_string(L3::VrfId::max));
    if (!GuardFacts::isIdentified(name, id))
        return;
    const auto holder = given.facts.holderOf(id, name);
    given.refuseIf(holder.has_value(), "vrfId",
                   "the identifier " + std::to_string(id) + " is that of " + vrfCalled(holder.value_or("")) +
                       ", and answers go by identifiers",
                   "choose another one");
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
    const RouteType missing = vrf.hasTable[0] ? RouteType::sparse : RouteType::staticRoutes;
    given.refuseIf(!vrf.hasBoth(), "key",
                   "multicast can't be turned on in " + vrfCalled(name) + ": there is no " +
                       std::string(routeTypeText(missing)) + " route table or FIB for it",
                   "make both first (a set of their paths alone, or of a route below them)");
    if (GuardFacts::isIdentified(name, vrf.id))
        checkAddition(given, name, "key");
}

void checkFibEntry(const Case& given) {
    const std::string name = given.key<L3::VrfName>().stringValue();
    if (given.isSet())
        checkVrfName(given, name, "key");
    else
        given.refuseIf(given.facts.usesTables(given.place, name), "key",
                       vrfCalled(name) + " is enabled: the plug-in would keep its FIB",
                       "turn multicast off in it first");
}

void checkTableRemoval(const Case& given) {
    given.refuseIf(given.facts.belongsToVrf(given.place), "path",
                   vrfCalled(given.place.vrf) + " is there: it keeps its route tables or FIBs",
                   "remove the VRF first, which removes them too");
}

void checkAllVrfs(const Case& given) {
    if (!State::fromDatum<bool>(*given.change.value) || given.facts.egressFromAllVrfs())
        return;
    const auto name = given.facts.incompleteVrf();
    given.refuseIf(name.has_value(), "value",
                   "egressFromAllVrfs can't be set while " + vrfCalled(name.value_or("")) +
                       " lacks a route table or FIB",
                   "turn multicast off in it, make both and turn it on again");
}

// ---- routes ---------------------------------------------------------------------------------------------

void checkRouteRow(const Case& given) {
    if (given.change.attribute == "route") {
        const auto key = given.key<RouteKey>();
        const bool isSource = !key.source.address().isIpv4();
        given.refuseIf(isSource || !key.group.address().isIpv4(), isSource ? "source" : "group",
                       "routes have IPv4 keys: others would be taken for IPv4", "leave it out");
    }
    if (given.place.shape->checkRow != nullptr)
        given.place.shape->checkRow(given.change);
}

} // namespace

void checkGuards(const Change& change, const Place& place, const GuardFacts& facts) {
    const Case given{change, place, facts};
    const bool isTable = place.kind() == PathKind::routeTable;
    if (isTable && given.isSet())
        checkVrfName(given, place.vrf, "path");
    if (isTable && change.attribute.empty() && !given.isSet())
        checkTableRemoval(given);
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
        refuseByGuard(change, change.key ? "key" : "value", change.path + " is written by the plug-in alone",
                      "change what it is made from: requests, routes, VRFs or the group status");
    case PathKind::other:
        return;
    }
}

} // namespace Agent
