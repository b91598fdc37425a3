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

std::span<const Oif> MirrorShared::named(OifSet& set) {
    namedOifs.clear();
    std::vector<int> known;
    for (int ifindex : *set)
        if (Interface* found = interfaces.find(ifindex)) {
            found->told = true;
            namedOifs.push_back({.ifindex = ifindex, .name = found->name});
            known.push_back(ifindex);
        }
    if (known.size() < set->size())
        set = oifSet(std::move(known));
    return namedOifs;
}

} // namespace Agent::Kernel
