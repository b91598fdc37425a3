#include "agent/Guards.h"

#include "agent/JsonRpc.h"
#include "agent/OperationError.h"
#include "agent/Operations.h"
#include "records/IpGenRouteKey.h"
#include "records/OifIndex.h"
#include "records/VrfId.h"
#include "records/VrfName.h"
#include "state/Value.h"

#include <algorithm>

namespace Agent {

namespace {

using KestrelNat::NatMrouteKey;
using Quill::Multicast::Fib::OifIndex;
using Routing::Multicast::Fib::IpGenRouteKey;

/// One change and what it is judged by.
struct Case {
    const Change& change;
    const Place& place;
    const GuardFacts& facts;

    bool isSet() const { return change.op == Change::Op::set; }
    template <class T>
    T key() const {
        return State::fromDatum<T>(*change.key);
    }

    /// @param rule what is not allowed.
    /// @param wayOut what to do instead; `raw` is added.
    [[noreturn]] void refuse(std::string_view field, const std::string& rule,
                             const std::string& wayOut) const {
        throw OperationError(
            RpcCode::refused, rule + "; " + wayOut + " (raw lets it through)",
            {.path = std::string(place.path), .attribute = change.attribute, .field = std::string(field)});
    }
};

std::string quoted(std::string_view name) {
    return "\"" + std::string(name) + "\"";
}

// ---- requests -------------------------------------------------------------------------------------------

void checkRequest(const Case& given, NatService service) {
    if (!given.isSet())
        return;
    const auto key = given.key<NatMrouteKey>();
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
    if (given.facts.hasTwin(service, key)) {
        given.refuse(
            "type",
            "there is a request that differs by its type alone, and the plug-in can't tell them apart",
            "withdraw that one first");
    }
}

// ---- VRFs -----------------------------------------------------------------------------------------------

void checkVrfName(const Case& given, std::string_view name, std::string_view field) {
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
    if (name.empty())
        given.refuse(field, "a VRF has a name of at least one byte", "name it");
    if (name.find('/') != std::string_view::npos || std::ranges::any_of(name, isControl)) {
        given.refuse(field,
                     "a VRF's name, " + State::valueText(std::string(name)) +
                         ", is part of paths: it holds no '/' and no control bytes",
                     "choose another name");
    }
}

/// A VRF is about to be added by the plug-in.
void checkAddition(const Case& given, std::string_view name, std::string_view field) {
    if (given.facts.egressFromAllVrfs() && given.facts.hasMrouteRequests()) {
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
        given.refuse("key",
                     "multicast can't be turned on in VRF " + quoted(name) + ": there is no " +
                         std::string(vrf.hasStatic ? "sparse" : "static") + " route table or FIB for it",
                     "make both first (a set of their paths alone, or of a route below them)");
    }
    if (GuardFacts::isIdentified(name, vrf.id))
        checkAddition(given, name, "key");
}

void checkFibEntry(const Case& given) {
    const std::string name = given.key<L3::VrfName>().stringValue();
    if (given.isSet()) {
        checkVrfName(given, name, "key");
    } else if (given.facts.usesFibOf(name)) {
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

void checkRouteKey(const Case& given) {
    const auto key = given.key<IpGenRouteKey>();
    const bool isSource = !key.source.address().isIpv4();
    if (isSource || !key.group.address().isIpv4()) {
        given.refuse(isSource ? "source" : "group", "routes have IPv4 keys: others would be taken for IPv4",
                     "leave it out");
    }
}

void checkQuillRow(const Case& given) {
    const auto refuseIndex = [&](const char* field, std::uint64_t index) {
        given.refuse(field,
                     "the OIF index " + std::to_string(index) + " is none: " +
                         std::to_string(OifIndex::null) + " ends a list, larger ones end the process",
                     "use indexes up to " + std::to_string(OifIndex::null - 1));
    };
    if (given.change.attribute == "oifIndexIntf") {
        if (const OifIndex index = given.key<OifIndex>(); index.isNull())
            refuseIndex("key", index.value());
        return;
    }
    checkRouteKey(given);
    for (const auto& [name, content] : *given.change.value->record()) {
        for (const State::Datum& index : *content.list())
            if (*index.number() >= OifIndex::null)
                refuseIndex("oifs", *index.number());
    }
}

} // namespace

void Guards::check(const Change& change, const Place& place, const GuardFacts& facts) const {
    const Case given{change, place, facts};
    const bool isTable = place.kind == PathKind::quillTable || place.kind == PathKind::lumenFib;
    if (isTable && given.isSet())
        checkVrfName(given, place.vrf, "path");
    if (change.attribute.empty())
        return;
    switch (place.kind) {
    case PathKind::mrouteRequests:
        return checkRequest(given, NatService::mroute);
    case PathKind::mgroupRequests:
        return checkRequest(given, NatService::mgroup);
    case PathKind::vrfs:
        return checkVrfEntry(given);
    case PathKind::vrfEnabled:
        return checkVrfEnabled(given);
    case PathKind::lumenFibs:
        return checkFibEntry(given);
    case PathKind::capability:
        return checkAllVrfs(given);
    case PathKind::quillTable:
        return given.isSet() ? checkQuillRow(given) : void();
    case PathKind::lumenFib:
        return given.isSet() ? checkRouteKey(given) : void();
    case PathKind::plugInOutput:
        given.refuse(change.key ? "key" : "value",
                     std::string(place.path) + " is written by the plug-in alone",
                     "change what it is made from: requests, routes, VRFs or the group status");
    case PathKind::other:
        return;
    }
}

} // namespace Agent
