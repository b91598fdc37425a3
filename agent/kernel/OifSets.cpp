#include "agent/kernel/OifSets.h"

#include "agent/kernel/Interfaces.h"

#include <algorithm>

namespace Agent::Kernel {

bool OifSet::contains(int ifindex) const {
    return std::ranges::binary_search(members(), ifindex);
}

OifSet OifSets::get(std::vector<int>& members) {
    if (members.empty())
        return {};
    std::ranges::sort(members);
    members.erase(std::unique(members.begin(), members.end()), members.end());
    const auto [at, isNew] = nodes_.try_emplace(members, nullptr);
    if (!isNew)
        return OifSet(State::Handle<OifSet::Node>(at->second));
    State::Handle<OifSet::Node> node = State::makeHandle<OifSet::Node>(*this);
    node->at = at;
    at->second = node.get();
    return OifSet(std::move(node));
}

OifSet OifSets::get(std::span<const Oif> members) {
    std::vector<int> list;
    for (const Oif& oif : members)
        list.push_back(oif.ifindex);
    return get(list);
}

std::span<const Oif> OifSets::named(const OifSet& set, Interfaces& interfaces) {
    if (!set.node_)
        return {};
    OifSet::Node& node = *set.node_;
    if (node.namedAt == interfaces.version())
        return node.named;
    node.named.clear();
    for (int member : set.members()) {
        if (Interface* found = interfaces.find(member)) {
            found->told = true;
            node.named.push_back({.ifindex = member, .name = found->name});
        } else {
            interfaces.noteMissing(member);
        }
    }
    node.namedAt = interfaces.version();
    return node.named;
}

bool OifSets::uses(int ifindex) const {
    return std::ranges::any_of(
        nodes_, [&](const auto& node) { return std::ranges::binary_search(node.first, ifindex); });
}

} // namespace Agent::Kernel
