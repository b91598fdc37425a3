#include "agent/kernel/Interfaces.h"

namespace Agent::Kernel {

Interface* Interfaces::find(int ifindex) {
    auto at = map_.find(ifindex);
    return at == map_.end() ? nullptr : &at->second;
}

bool Interfaces::isInternal(int ifindex) const {
    const Interface* known = find(ifindex);
    return known && known->internal;
}

std::string Interfaces::nameOf(int ifindex) const {
    const Interface* known = find(ifindex);
    return known ? known->name : "#" + std::to_string(ifindex);
}

Interfaces::Change Interfaces::eventIs(const Link& link) {
    Change change = is(link);
    map_[link.ifindex].touched = dump_;
    return change;
}

Interfaces::Change Interfaces::answerIs(const Link& link) {
    const Interface* known = find(link.ifindex);
    return known && known->touched == dump_ ? Change() : is(link);
}

Interfaces::Change Interfaces::is(const Link& link) {
    Interface& known = map_[link.ifindex];
    known.seen = dump_;
    // Where another interface took the index before the sink heard that the first went, the sink sees a
    // rename.
    if (goneAndTold_.erase(link.ifindex) > 0)
        known.told = true;
    if (known.name != link.name) {
        known.name = link.name;
        ++version_;
        if (known.told)
            renamed_.insert(link.ifindex);
    }
    Change change{.toInternal = link.internal && !known.internal,
                  .toKnown = missing_.erase(link.ifindex) > 0};
    known.internal = known.internal || link.internal;
    return change;
}

void Interfaces::gone(int ifindex) {
    disturbed_ = true;
    missing_.erase(ifindex);
    renamed_.erase(ifindex);
    auto at = map_.find(ifindex);
    if (at == map_.end())
        return;
    if (at->second.told)
        goneAndTold_.insert(ifindex);
    map_.erase(at);
    ++version_;
}

void Interfaces::dumpBegins() {
    ++dump_;
    disturbed_ = false;
}

std::vector<int> Interfaces::absent() const {
    std::vector<int> absent;
    for (const auto& [ifindex, interface] : map_)
        if (interface.seen != dump_)
            absent.push_back(ifindex);
    return absent;
}

} // namespace Agent::Kernel
