#include "agent/language/VrfNames.h"

#include "records/RouteStatus.h"

#include <algorithm>

namespace Agent {

using Routing::Hardware::RouteStatus;
using Routing::Multicast::Fib::VrfEnabledStatus;

const VrfNames::Read& VrfNames::read() const {
    if (read_)
        return *read_;
    read_.emplace();
    const Stores& stores = operations_.host().stores();
    const auto entries = stores.inDatabase<RouteStatus>();
    const auto switches = stores.inDatabase<VrfEnabledStatus>();
    std::vector<std::string_view>& names = read_->names;
    names.reserve(entries->vrfStatusCollection().size() + switches->vrfEnabledCollection().size());
    for (const auto& entry : entries->vrfStatus())
        names.emplace_back(entry.key);
    for (const auto& isOn : switches->vrfEnabled())
        names.emplace_back(isOn.key);
    std::ranges::sort(names);
    names.erase(std::unique(names.begin(), names.end()), names.end());
    for (const auto& [name, entry] : entries->vrfStatus())
        if (GuardFacts::isIdentified(name, entry->vrfId()))
            read_->places.try_emplace(entry->vrfId(), placeOf(name));
    return *read_;
}

std::string VrfNames::text(std::uint32_t vrfId) const {
    const std::string_view name = find(vrfId);
    return name.empty() ? std::to_string(vrfId) : std::string(name);
}

std::uint64_t VrfNames::placeOf(std::uint32_t vrfId) const {
    const auto found = read().places.find(vrfId);
    return found == read().places.end() ? nameless : found->second;
}

// Odd places are those of names that are there, even ones are between them.
std::uint64_t VrfNames::placeOf(std::string_view name) const {
    const auto& names = read().names;
    const auto at = std::ranges::lower_bound(names, name);
    const auto index = static_cast<std::uint64_t>(at - names.begin());
    return 2 * index + (at != names.end() && *at == name ? 1 : 0);
}

} // namespace Agent
