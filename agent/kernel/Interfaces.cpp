#include "agent/kernel/Interfaces.h"

#include <utility>

namespace Agent::Kernel {

bool Interfaces::isInternal(int ifindex) const {
    const auto at = map_.find(ifindex);
    return at != map_.end() && at->second.internal;
}

std::string Interfaces::nameOf(int ifindex) const {
    const auto at = map_.find(ifindex);
    return at == map_.end() ? "#" + std::to_string(ifindex) : at->second.name;
}

std::vector<Oif> Interfaces::named(const std::vector<int>& oifs) {
    std::vector<Oif> named;
    for (int ifindex : oifs)
        if (const auto at = map_.find(ifindex); at != map_.end()) {
            at->second.told = true;
            named.push_back({.ifindex = ifindex, .name = at->second.name});
        }
    return named;
}

bool Interfaces::learn(const Link& link, bool isFromDump) {
    const auto [at, isNew] = map_.try_emplace(link.ifindex);
    Interface& known = at->second;
    if (isFromDump && known.touched == dump_)
        return false;
    known.seen = dump_;
    known.touched = isFromDump ? known.touched : dump_;
    // Where another interface took the index before the sink heard that the first went, the sink sees a rename.
    if (toForget_.erase(link.ifindex) > 0)
        known.told = true;
    if (known.name != link.name) {
        known.name = link.name;
        if (known.told)
            toRename_.insert(link.ifindex);
    }
    const bool wasInternal = std::exchange(known.internal, known.internal || link.internal);
    return isNew || known.internal != wasInternal;
}

void Interfaces::remove(int ifindex) {
    toRename_.erase(ifindex);
    const auto at = map_.find(ifindex);
    if (at == map_.end())
        return;
    if (at->second.told)
        toForget_.insert(ifindex);
    map_.erase(at);
}

std::vector<int> Interfaces::unseen() const {
    std::vector<int> unseen;
    for (const auto& [ifindex, interface] : map_)
        if (interface.seen != dump_)
            unseen.push_back(ifindex);
    return unseen;
}

} // namespace Agent::Kernel
