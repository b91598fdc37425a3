#include "agent/GuardFacts.h"

#include "agent/Operations.h"
#include "records/LumenFib.h"
#include "records/NatMgroup.h"
#include "records/NatMroute.h"
#include "state/Value.h"

#include <algorithm>
#include <utility>

namespace Agent {

namespace {

using KestrelNat::NatMrouteKey;
using Lumen::Multicast::Fib::StatusByVrf;

bool hasFib(const Host& host, std::string_view type, std::string_view vrf) {
    const auto fibs = State::handleCast<StatusByVrf>(
        host.entityStore()->entity(StatusByVrf::mountPath(L3::AddressFamily::ipv4, type)));
    return fibs && fibs->statusHas(Lumen::Multicast::Fib::MfibVrfName(L3::VrfName(vrf)));
}

bool hasTable(const Host& host, std::string_view type, std::string_view vrf) {
    const std::string path = "routing/multicast/routestatus/" + std::string(vrf) + "/" + std::string(type);
    return static_cast<bool>(host.tableStore()->entity(path));
}

} // namespace

RequestsByType::RequestsByType(State::Handle<const State::Publisher> publisher, const Members& members)
    : publisher_(std::move(publisher))
    , members_(members) {
    for (const NatMrouteKey& key : members_.walk())
        ++count_[static_cast<std::uint8_t>(key.type)];
    publisher_->subscribe(this, &heard);
}

RequestsByType::~RequestsByType() {
    publisher_->unsubscribe(this, &heard);
}

void RequestsByType::heard(void* self, const State::Notification& change) {
    const auto& key = change.keyAs<NatMrouteKey>();
    auto& requests = *static_cast<RequestsByType*>(self);
    std::uint32_t& count = requests.count_[static_cast<std::uint8_t>(key.type)];
    if (requests.members_.has(key))
        ++count;
    else
        --count;
}

namespace {

template <class Set>
auto requestsOf(const Host& host, const char* path,
                const RequestsByType::Members& (Set::*collection)() const) {
    const auto set = host.inDatabase<Set>(path);
    return std::pair<State::Handle<const State::Publisher>, const RequestsByType::Members&>(
        set, ((*set).*collection)());
}

} // namespace

GuardInputs::GuardInputs(const Host& from)
    : host(from)
    , vrfs(from.inDatabase<Routing::Hardware::RouteStatus>("routing/hardware/route/status"))
    , vrfEnabled(
          from.inDatabase<Routing::Multicast::Fib::VrfEnabledStatus>("routing/multicast/fibenabled/status"))
    , capability(from.inDatabase<KestrelNat::CapabilityConfig>("hardware/kestrel/nat/capability/config"))
    , mrouteRequests(std::make_from_tuple<RequestsByType>(requestsOf<KestrelNat::NatMrouteRequestSet>(
          from, "api/mroute/req", &KestrelNat::NatMrouteRequestSet::mrouteReqCollection)))
    , mgroupRequests(std::make_from_tuple<RequestsByType>(requestsOf<KestrelNat::NatMgroupRequestSet>(
          from, "api/mgroup/req", &KestrelNat::NatMgroupRequestSet::mgroupReqCollection))) {}

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
    const bool isLumen = inputs_.host.isLumen();
    vrf.hasStatic = isLumen ? hasFib(inputs_.host, "user", name) : hasTable(inputs_.host, "static", name);
    vrf.hasSparse = (isLumen ? &hasFib : &hasTable)(inputs_.host, "sparsemode", name);
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

bool GuardFacts::hasRequest(NatService service, const NatMrouteKey& key) const {
    const auto& touched = over(service).present;
    const auto found = touched.find(key);
    return found == touched.end() ? base(service).members().has(key) : found->second;
}

bool GuardFacts::hasTwin(NatService service, NatMrouteKey key) const {
    const auto own = static_cast<unsigned>(key.type);
    for (unsigned type = 0; type < 256; ++type) {
        const auto number = static_cast<std::uint8_t>(type);
        if (type != own && (base(service).anyOfType(number) || over(service).types.contains(number))) {
            key.type = static_cast<KestrelNat::NatRequestType>(number);
            if (hasRequest(service, key))
                return true;
        }
    }
    return false;
}

bool GuardFacts::hasMrouteRequests() const {
    const auto present = static_cast<std::ptrdiff_t>(base(NatService::mroute).members().size());
    return present + over(NatService::mroute).more != 0;
}

void GuardFacts::noteRequest(NatService service, const NatMrouteKey& key, bool present) {
    if (hasRequest(service, key) != present) {
        Requests& requests = requests_[static_cast<std::size_t>(service)];
        requests.present.insert_or_assign(key, present);
        requests.types.insert(static_cast<std::uint8_t>(key.type));
        requests.more += present ? 1 : -1;
    }
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
    const bool isLumen = inputs_.host.isLumen();
    const auto tableIs = [&](std::string_view vrfName, bool present) {
        editVrf(vrfName, [&](Vrf& vrf) {
            (place.routeType == "sparsemode" ? vrf.hasSparse : vrf.hasStatic) = present;
        });
    };
    if (place.kind == PathKind::quillTable || place.kind == PathKind::lumenFib) {
        const bool isSource = isLumen == (place.kind == PathKind::lumenFib);
        if (isSet && isSource && (!place.entity || vrfs_.contains(place.vrf)))
            tableIs(place.vrf, true);
        return;
    }
    if (change.attribute.empty())
        return;
    const auto vrfKey = [&] { return State::fromDatum<L3::VrfName>(*change.key); };
    switch (place.kind) {
    case PathKind::vrfs:
        editVrf(vrfKey(), [&](Vrf& vrf) {
            vrf.id = isSet ? std::optional(writtenId(change, vrf.id.value_or(0))) : std::nullopt;
        });
        break;
    case PathKind::vrfEnabled:
        editVrf(vrfKey(), [&](Vrf& vrf) { vrf.enabled = isSet && State::fromDatum<bool>(*change.value); });
        break;
    case PathKind::lumenFibs:
        if (isLumen)
            tableIs(vrfKey(), isSet);
        break;
    case PathKind::capability:
        egressFromAllVrfs_ = State::fromDatum<bool>(*change.value);
        break;
    case PathKind::mrouteRequests:
    case PathKind::mgroupRequests:
        noteRequest(place.kind == PathKind::mrouteRequests ? NatService::mroute : NatService::mgroup,
                    State::fromDatum<NatMrouteKey>(*change.key), isSet);
        break;
    default:
        break;
    }
}

} // namespace Agent
