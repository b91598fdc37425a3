#include "agent/kernel/Interfaces.h"

#include <utility>

namespace Agent::Kernel {

Interface* Interfaces::find(int ifindex) {
    const auto at = map_.find(ifindex);
    return at == map_.end() ? nullptr : &at->second;
}

bool Interfaces::isInternal(int ifindex) const {
    const auto at = map_.find(ifindex);
    return at != map_.end() && at->second.internal;
}

std::string Interfaces::nameOf(int ifindex) const {
    const auto at = map_.find(ifindex);
    return at == map_.end() ? "#" + std::to_string(ifindex) : at->second.name;
}

Interfaces::Change Interfaces::learnFromEvent(const Link& link) {
    const Change change = learn(link);
    map_[link.ifindex].touched = dump_;
    return change;
}

Interfaces::Change Interfaces::learnFromDump(const Link& link) {
    const Interface* known = find(link.ifindex);
    return known && known->touched == dump_ ? Change() : learn(link);
}

Interfaces::Change Interfaces::learn(const Link& link) {
    Interface& known = map_[link.ifindex];
    known.seen = dump_;
    // Where another interface took the index before the sink heard that the first went, the sink sees a rename.
    if (toForget_.erase(link.ifindex) > 0)
        known.told = true;
    if (known.name != link.name) {
        known.name = link.name;
        ++version_;
        if (known.told)
            toRename_.insert(link.ifindex);
    }
    const bool wasInternal = std::exchange(known.internal, known.internal || link.internal);
    return {.toInternal = known.internal && !wasInternal, .toKnown = missing_.erase(link.ifindex) > 0};
}

void Interfaces::remove(int ifindex) {
    disturbed_ = true;
    missing_.erase(ifindex);
    toRename_.erase(ifindex);
    const auto at = map_.find(ifindex);
    if (at == map_.end())
        return;
    if (at->second.told)
        toForget_.insert(ifindex);
    map_.erase(at);
    ++version_;
}

void Interfaces::beginDump() {
    ++dump_;
    disturbed_ = false;
}

std::vector<int> Interfaces::unseen() const {
    std::vector<int> unseen;
    for (const auto& [ifindex, interface] : map_)
        if (interface.seen != dump_)
            unseen.push_back(ifindex);
    return unseen;
}

} // namespace Agent::Kernel
