#include "agent/changes/GuardFacts.h"

#include "state/Value.h"

#include <algorithm>
#include <utility>

namespace Agent {

RequestsByType::RequestsByType(const Stores& stores, const Service& service)
    : entity_(stores.database->entity(service.requestPath))
    , members_(service.requests(*entity_)) {
    for (const RequestKey& key : members_.walk())
        ++count_[static_cast<std::uint8_t>(key.type)];
    entity_->subscribe(this, &notified);
}

RequestsByType::~RequestsByType() {
    entity_->unsubscribe(this, &notified);
}

void RequestsByType::notified(void* self, const State::Notification& change) {
    const auto& key = change.keyAs<RequestKey>();
    auto& requests = *static_cast<RequestsByType*>(self);
    std::uint32_t& count = requests.count_[static_cast<std::uint8_t>(key.type)];
    if (requests.members_.has(key))
        ++count;
    else
        --count;
}

GuardInputs::GuardInputs(const Host& from)
    : host(from)
    , vrfs(from.stores().inDatabase<Routing::Hardware::RouteStatus>())
    , vrfEnabled(from.stores().inDatabase<Routing::Multicast::Fib::VrfEnabledStatus>())
    , capability(from.stores().inDatabase<KestrelNat::CapabilityConfig>()) {
    for (const Service& service : services())
        requests.emplace_back(from.stores(), service);
}

GuardFacts::Vrf GuardFacts::vrf(std::string_view name) const {
    const auto found = vrfs_.find(name);
    return found == vrfs_.end() ? vrfInStores(name) : found->second;
}

GuardFacts::Vrf GuardFacts::vrfInStores(std::string_view name) const {
    const L3::VrfName key(name);
    Vrf vrf;
    if (const auto entry = inputs_.vrfs->vrfStatus(key))
        vrf.id = entry->vrfId();
    vrf.enabled = inputs_.vrfEnabled->vrfEnabled(key);
    for (const RouteType type : routeTypes)
        vrf.hasTable[static_cast<std::size_t>(type)] = inputs_.host.routes().hasTable(name, type);
    return vrf;
}

bool GuardFacts::isAdded(std::string_view name, const Vrf& vrf) const {
    return vrf.enabled && (isIdentified(name, vrf.id) || oddities_.addedUnidentified.contains(name));
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
    if (vrfs_.empty()) {
        for (const auto& [name, entry] : inputs_.vrfs->vrfStatus())
            if (entry->vrfId() == id && name.stringValue() != exceptName && isIdentified(name, id))
                return name.stringValue();
        return std::nullopt;
    }
    if (!holders_) {
        holders_.emplace();
        for (const auto& [name, entry] : inputs_.vrfs->vrfStatus())
            if (!vrfs_.contains(name.stringValue()))
                holders_->emplace(entry->vrfId(), name.stringValue());
        for (const auto& [name, vrf] : vrfs_)
            if (vrf.id)
                holders_->emplace(*vrf.id, name);
    }
    const auto [begin, end] = holders_->equal_range(id);
    const auto found = std::find_if(begin, end, [&](const auto& held) {
        return held.second != exceptName && isIdentified(held.second, id);
    });
    return found == end ? std::nullopt : std::optional(found->second);
}

std::optional<std::string> GuardFacts::incompleteVrf() const {
    if (!oddities_.addedIncomplete.empty())
        return *oddities_.addedIncomplete.begin();
    for (const auto& [name, enabled] : inputs_.vrfEnabled->vrfEnabled())
        if (enabled && !vrfs_.contains(name.stringValue()) && !vrfInStores(name).hasBoth())
            return name.stringValue();
    const auto found = std::ranges::find_if(
        vrfs_, [](const auto& touched) { return touched.second.enabled && !touched.second.hasBoth(); });
    return found == vrfs_.end() ? std::nullopt : std::optional(found->first);
}

bool GuardFacts::egressFromAllVrfs() const {
    return egressFromAllVrfs_.value_or(inputs_.capability->egressFromAllVrfs());
}

bool GuardFacts::hasRequest(const Service& service, const RequestKey& key) const {
    const auto& touched = requests_[service.index()].present;
    const auto found = touched.find(key);
    return found == touched.end() ? base(service).members().has(key) : found->second;
}

bool GuardFacts::hasDuplicate(const Service& service, RequestKey key) const {
    const auto own = static_cast<unsigned>(key.type);
    for (unsigned type = 0; type < 256; ++type) {
        const auto number = static_cast<std::uint8_t>(type);
        if (type == own ||
            (!base(service).anyOfType(number) && !requests_[service.index()].types.contains(number)))
            continue;
        key.type = static_cast<KestrelNat::NatRequestType>(number);
        if (hasRequest(service, key))
            return true;
    }
    return false;
}

bool GuardFacts::hasRequestsForRoutes() const {
    return std::ranges::any_of(services(), [this](const Service& service) {
        const auto present = static_cast<std::ptrdiff_t>(base(service).members().size());
        return service.readsRoutes && present + requests_[service.index()].more != 0;
    });
}

void GuardFacts::noteRequest(const Service& service, const RequestKey& key, bool present) {
    if (hasRequest(service, key) == present)
        return;
    Requests& requests = requests_[service.index()];
    requests.present.insert_or_assign(key, present);
    requests.types.insert(static_cast<std::uint8_t>(key.type));
    requests.more += present ? 1 : -1;
}

bool GuardFacts::isOfSource(const Place& place) const {
    return place.shape != nullptr && place.shape->source == inputs_.host.routes().name();
}

template <class Edit>
void GuardFacts::editVrf(std::string_view name, Edit edit) {
    const Vrf before = vrf(name);
    Vrf after = before;
    edit(after);
    const bool wasAdded = isAdded(name, before);
    const std::string key(name);
    if (!after.enabled) {
        oddities_.addedUnidentified.erase(key);
        oddities_.addedIncomplete.erase(key);
    } else if (inputs_.host.isStarted()) {
        if (wasAdded && !isIdentified(name, after.id))
            oddities_.addedUnidentified.insert(key);
        else if (!wasAdded && isAdded(name, after) && !after.hasBoth())
            oddities_.addedIncomplete.insert(key);
    }
    if (holders_ && before.id != after.id) {
        if (before.id) {
            const auto [begin, end] = holders_->equal_range(*before.id);
            holders_->erase(std::find_if(begin, end, [&](const auto& held) { return held.second == key; }));
        }
        if (after.id)
            holders_->emplace(*after.id, key);
    }
    vrfs_.insert_or_assign(key, after);
}

void GuardFacts::note(const Change& change, const Place& place) {
    const bool isSet = change.op == Change::Op::set;
    const auto noteTable = [&](std::string_view vrfName, bool present) {
        if (isOfSource(place))
            editVrf(vrfName,
                    [&](Vrf& vrf) { vrf.hasTable[static_cast<std::size_t>(place.routeType)] = present; });
    };
    if (place.kind() == PathKind::routeTable) {
        if (isSet && (!place.entity || vrfs_.contains(place.vrf)))
            noteTable(place.vrf, true);
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
