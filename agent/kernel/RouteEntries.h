// The routes of one table of the kernel: what is known of each, what is installed in the agent's tables, and which
// wait to be told to the sink. Entries stay in place from get() to erase().
//
// A TableLearner owns it and changes what the kernel has of an entry; MirroredVrf changes what is installed, and
// Verification, which installs nothing, marks there which entries it found.
#pragma once

#include "agent/host/RouteSource.h"
#include "agent/kernel/KernelMessage.h"

#include <deque>
#include <list>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Agent::Kernel {

/// One route. It exists while the kernel has it (present) or the sink (installed), and to the end of a dump after that.
struct RouteEntry {
    MfcKey key;
    std::vector<int> oifs = {}; // of the kernel, by ifindex, sorted, without the IIF and internal interfaces
    std::vector<int> installedOifs = {};
    int iif = 0;               // 0: none, the route forwards nothing
    std::uint32_t seen = 0;    // the dump that had it last
    std::uint32_t touched = 0; // the dump during which an event told its state
    std::uint8_t protocol = 0;
    RouteType installedType = RouteType::staticRoutes;
    bool present = false;
    bool installed = false;
    bool several = false; // the kernel has more than one entry of this key, with different IIFs
    bool queued = false;  // waits to be told to the sink
    bool again = false;   // tell the sink even where nothing differs: an interface has another name
};

class RouteEntries {
  public:
    std::size_t size() const { return entries_.size(); }
    /// All, in the order in which they came.
    std::list<RouteEntry>& all() { return entries_; }
    const std::list<RouteEntry>& all() const { return entries_; }

    /// Null where there is none.
    RouteEntry* find(const MfcKey& key) {
        const auto at = index_.find(key);
        return at == index_.end() ? nullptr : &*at->second;
    }
    /// The entry of the key, made where there is none.
    RouteEntry& get(const MfcKey& key) {
        const auto [at, isNew] = index_.try_emplace(key);
        if (isNew)
            at->second = entries_.insert(entries_.end(), RouteEntry{.key = key});
        return *at->second;
    }
    /// The entry must not be queued.
    void erase(RouteEntry& entry) {
        const auto at = index_.find(entry.key);
        entries_.erase(at->second);
        index_.erase(at);
    }

    /// Puts an entry in line for the sink, where it isn't yet.
    void queue(RouteEntry& entry) {
        if (!std::exchange(entry.queued, true))
            queue_.push_back(&entry);
    }
    /// Queues the entries for which chosen(entry) is true.
    template <class Chosen>
    void queueIf(Chosen chosen) {
        for (RouteEntry& entry : entries_)
            if (chosen(entry))
                queue(entry);
    }
    void queueAll() {
        queueIf([](const RouteEntry&) { return true; });
    }
    bool anyQueued() const { return !queue_.empty(); }
    /// The first in line, which there must be.
    RouteEntry& takeQueued() {
        RouteEntry& entry = *queue_.front();
        queue_.pop_front();
        entry.queued = false;
        return entry;
    }

  private:
    // Mixes the two addresses, so that sources and groups that count up together don't meet.
    struct Hash {
        std::size_t operator()(const MfcKey& key) const {
            const std::uint64_t mixed =
                (static_cast<std::uint64_t>(key.source) << 32 | key.group) * 0xd6e8feb86659fd93;
            return mixed ^ (mixed >> 32);
        }
    };

    std::list<RouteEntry> entries_;
    std::unordered_map<MfcKey, std::list<RouteEntry>::iterator, Hash> index_;
    std::deque<RouteEntry*> queue_;
};

} // namespace Agent::Kernel
