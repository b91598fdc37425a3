#include "agent/kernel/OifSets.h"

#include "agent/kernel/Interfaces.h"

#include <algorithm>

namespace Agent::Kernel {
namespace {

// FNV-1a over whole numbers: enough for a pool of a few dozen sets, whose members nobody chooses to collide.
std::size_t hashOf(std::span<const int> members) {
    std::uint64_t hash = 0xcbf29ce484222325;
    for (int member : members)
        hash = (hash ^ static_cast<std::uint32_t>(member)) * 0x100000001b3;
    return hash ^ (hash >> 29);
}

} // namespace

bool OifSet::contains(int ifindex) const {
    return std::binary_search(members().begin(), members().end(), ifindex);
}

void OifSet::drop() {
    node_->pool->nodes_.erase(node_);
    delete node_;
}

OifSet OifSets::get(std::vector<int>& members) {
    if (members.empty())
        return {};
    std::sort(members.begin(), members.end());
    members.erase(std::unique(members.begin(), members.end()), members.end());
    probe_.members.swap(members);
    probe_.hash = hashOf(probe_.members);
    auto at = nodes_.find(&probe_);
    probe_.members.swap(members);
    if (at == nodes_.end())
        at = nodes_
                 .insert(new OifSet::Node{.pool = this, .hash = probe_.hash, .members = members, .named = {}})
                 .first;
    return OifSet(*at);
}

OifSet OifSets::get(std::span<const Oif> members) {
    std::vector<int> list;
    for (const Oif& oif : members)
        list.push_back(oif.ifindex);
    return get(list);
}

std::span<const Oif> OifSets::named(const OifSet& set, Interfaces& interfaces) {
    if (set.empty())
        return {};
    OifSet::Node& node = *set.node_;
    if (node.namedAt != interfaces.version()) {
        node.named.clear();
        for (int member : node.members) {
            if (Interface* found = interfaces.find(member)) {
                found->told = true;
                node.named.push_back({.ifindex = member, .name = found->name});
            } else {
                interfaces.missing(member);
            }
        }
        node.namedAt = interfaces.version();
    }
    return node.named;
}

bool OifSets::uses(int ifindex) const {
    return std::any_of(nodes_.begin(), nodes_.end(), [&](const OifSet::Node* node) {
        return std::binary_search(node->members.begin(), node->members.end(), ifindex);
    });
}

} // namespace Agent::Kernel
