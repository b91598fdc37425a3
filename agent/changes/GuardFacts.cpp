// How the guards' facts are worked out (Guards.h).
#include "agent/changes/Guards.h"

#include "records/NatStatus.h"
#include "state/Value.h"

#include <algorithm>
#include <utility>

namespace Agent {

using Routing::Hardware::RouteStatus;
using Routing::Multicast::Fib::VrfEnabledStatus;

GuardFacts::Vrf GuardFacts::vrf(std::string_view name) const {
    const auto found = vrfs_.find(name);
    return found == vrfs_.end() ? vrfInStores(name) : found->second;
}

GuardFacts::Vrf GuardFacts::vrfInStores(std::string_view name) const {
    const L3::VrfName key(name);
    Vrf vrf;
    if (const auto entry = host_.stores().inDatabase<RouteStatus>()->vrfStatus(key))
        vrf.id = entry->vrfId();
    vrf.enabled = host_.stores().inDatabase<VrfEnabledStatus>()->vrfEnabled(key);
    for (const RouteType type : routeTypes)
        vrf.hasTable[static_cast<std::size_t>(type)] = static_cast<bool>(host_.routes().find(name, type));
    vrf.isAdded = isAdded(name, vrf);
    return vrf;
}

bool GuardFacts::isAdded(std::string_view name, const Vrf& vrf) const {
    return vrf.enabled && (isIdentified(name, vrf.id) || memory_.addedUnidentified.contains(name));
}

std::uint32_t GuardFacts::writtenId(const Change& change, std::uint32_t before) {
    if (change.value && change.value->record() != nullptr) {
        for (const auto& [name, content] : *change.value->record())
            if (name == "vrfId")
                return State::fromDatum<std::uint32_t>(content);
    }
    return before;
}

std::optional<std::string> GuardFacts::holderOf(std::uint32_t id, std::string_view exceptName) const {
    const auto holds = [&](std::string_view name, std::optional<std::uint32_t> held) {
        return held == id && name != exceptName && isIdentified(name, id);
    };
    const auto entries = host_.stores().inDatabase<RouteStatus>();
    for (const auto& [name, entry] : entries->vrfStatus())
        if (holds(name, entry->vrfId()) && !vrfs_.contains(name.stringValue()))
            return name.stringValue();
    for (const auto& [name, vrf] : vrfs_)
        if (holds(name, vrf.id))
            return name;
    return std::nullopt;
}

std::optional<std::string> GuardFacts::incompleteVrf() const {
    if (!memory_.addedIncomplete.empty())
        return *memory_.addedIncomplete.begin();
    const auto inStores = host_.stores().inDatabase<VrfEnabledStatus>();
    for (const auto& [name, enabled] : inStores->vrfEnabled())
        if (enabled && !vrfs_.contains(name.stringValue()) && !vrfInStores(name).hasBoth())
            return name.stringValue();
    for (const auto& [name, vrf] : vrfs_)
        if (vrf.enabled && !vrf.hasBoth())
            return name;
    return std::nullopt;
}

bool GuardFacts::egressFromAllVrfs() const {
    return egressFromAllVrfs_
               ? *egressFromAllVrfs_
               : host_.stores().inDatabase<KestrelNat::CapabilityConfig>()->egressFromAllVrfs();
}

bool GuardFacts::hasRequest(const Service& service, const RequestKey& key) const {
    const auto& touched = requests_[service.index()].isThere;
    const auto found = touched.find(key);
    return found == touched.end() ? stored(service).has(key) : found->second;
}

bool GuardFacts::hasDuplicate(const Service& service, RequestKey key) const {
    const auto own = static_cast<std::size_t>(key.type);
    for (std::size_t type = 0; type < memory_.requestTypes.size(); ++type) {
        key.type = static_cast<KestrelNat::NatRequestType>(type);
        if (memory_.requestTypes[type] && type != own && hasRequest(service, key))
            return true;
    }
    return false;
}

bool GuardFacts::hasRequestsForRoutes() const {
    return std::ranges::any_of(services(), [this](const Service& service) {
        const auto present = static_cast<std::ptrdiff_t>(stored(service).size());
        return service.readsRoutes && present + requests_[service.index()].more != 0;
    });
}

void GuardFacts::noteRequest(const Service& service, const RequestKey& key, bool isThere) {
    if (hasRequest(service, key) == isThere)
        return;
    Requests& requests = requests_[service.index()];
    requests.isThere.insert_or_assign(key, isThere);
    requests.more += isThere ? 1 : -1;
    memory_.requestTypes.set(static_cast<std::size_t>(key.type));
}

bool GuardFacts::isOfSource(const Place& place) const {
    return place.shape != nullptr && place.shape->source == host_.routes().name();
}

template <class Edit>
void GuardFacts::editVrf(std::string_view name, Edit edit) {
    const Vrf before = vrf(name);
    Vrf& after = vrfs_.insert_or_assign(std::string(name), before).first->second;
    edit(after);
    const std::string key(name);
    if (!after.enabled) {
        memory_.addedUnidentified.erase(key);
        memory_.addedIncomplete.erase(key);
    } else if (host_.isStarted()) {
        if (before.isAdded && !isIdentified(name, after.id))
            memory_.addedUnidentified.insert(key);
        else if (!before.isAdded && isAdded(name, after) && !after.hasBoth())
            memory_.addedIncomplete.insert(key);
    }
    after.isAdded = isAdded(name, after);
}

void GuardFacts::note(const Change& change, const Place& place) {
    const bool isSet = change.op == Change::Op::set;
    const auto noteTable = [&](std::string_view vrfName, bool present) {
        if (isOfSource(place))
            editVrf(vrfName,
                    [&](Vrf& vrf) { vrf.hasTable[static_cast<std::size_t>(place.routeType)] = present; });
    };
    if (place.kind() == PathKind::routeTable) {
        if (isSet ? !place.entity || vrfs_.contains(place.vrf) : change.attribute.empty())
            noteTable(place.vrf, isSet);
        return;
    }
    if (change.attribute.empty())
        return;
    const auto vrfKey = [&] { return State::fromDatum<L3::VrfName>(*change.key); };
    switch (place.kind()) {
    case PathKind::vrfs:
        editVrf(vrfKey(), [&](Vrf& vrf) {
            vrf.id = isSet ? std::optional(writtenId(change, vrf.id.value_or(0))) : std::nullopt;
        });
        break;
    case PathKind::vrfEnabled:
        editVrf(vrfKey(), [&](Vrf& vrf) { vrf.enabled = isSet && State::fromDatum<bool>(*change.value); });
        break;
    case PathKind::routeTables:
        noteTable(vrfKey(), isSet);
        break;
    case PathKind::capability:
        egressFromAllVrfs_ = State::fromDatum<bool>(*change.value);
        break;
    case PathKind::requests:
        noteRequest(*place.shape->service, State::fromDatum<RequestKey>(*change.key), isSet);
        break;
    default:
        break;
    }
}

} // namespace Agent
