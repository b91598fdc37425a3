#include "agent/kernel/MirrorShared.h"

#include <algorithm>

namespace Agent::Kernel {

OifSet MirrorShared::oifSet(std::vector<int> members) {
    if (members.empty())
        return &noOifs;
    std::ranges::sort(members);
    members.erase(std::unique(members.begin(), members.end()), members.end());
    return &*oifSets.insert(std::move(members)).first;
}

OifSet MirrorShared::known(OifSet set) {
    const auto isUnknown = [this](int ifindex) { return !interfaces.find(ifindex); };
    if (std::ranges::none_of(*set, isUnknown))
        return set;
    std::vector<int> members = *set;
    std::erase_if(members, isUnknown);
    return oifSet(std::move(members));
}

std::span<const Oif> MirrorShared::named(OifSet set) {
    namedOifs.clear();
    for (int ifindex : *set) {
        Interface& found = *interfaces.find(ifindex);
        found.told = true;
        namedOifs.push_back({.ifindex = ifindex, .name = found.name});
    }
    return namedOifs;
}

} // namespace Agent::Kernel
