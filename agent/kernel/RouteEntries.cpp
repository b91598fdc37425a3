#include "agent/kernel/RouteEntries.h"

namespace Agent::Kernel {

// Mixes the two addresses, so that sources and groups that count up together don't meet.
std::size_t RouteEntries::Hash::operator()(const MfcKey& key) const {
    const std::uint64_t mixed =
        (static_cast<std::uint64_t>(key.source) << 32 | key.group) * 0xd6e8feb86659fd93;
    return mixed ^ (mixed >> 32);
}

RouteEntry* RouteEntries::find(const MfcKey& key) {
    const auto at = index_.find(key);
    return at == index_.end() ? nullptr : &*at->second;
}

RouteEntry& RouteEntries::get(const MfcKey& key) {
    const auto [at, isNew] = index_.try_emplace(key);
    if (isNew)
        at->second = entries_.insert(entries_.end(), RouteEntry{.key = key, .oifs = {}, .installedOifs = {}});
    return *at->second;
}

void RouteEntries::erase(RouteEntry& entry) {
    const auto at = index_.find(entry.key);
    entries_.erase(at->second);
    index_.erase(at);
}

void RouteEntries::queue(RouteEntry& entry) {
    if (entry.queued)
        return;
    entry.queued = true;
    queue_.push_back(&entry);
}

RouteEntry* RouteEntries::takeQueued() {
    if (queue_.empty())
        return nullptr;
    RouteEntry* entry = queue_.front();
    queue_.pop_front();
    entry->queued = false;
    return entry;
}

} // namespace Agent::Kernel
