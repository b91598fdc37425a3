// The routes of one table of the kernel: what is known of each, what is installed in the agent's tables, and
// which wait to be told to the sink.
//
// Entries stay in place from get() to erase(), and are visited in the order in which they came. Owned by a
// TableLearner, which changes what the kernel has of an entry; MirroredVrf changes what is installed, and
// Verification, which installs nothing, marks there which entries it found.
#pragma once

#include "agent/kernel/KernelMessage.h"
#include "agent/kernel/OifSets.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <unordered_map>

namespace Agent::Kernel {

/// One route. It exists while the kernel has it (present) or the sink has it (installed), and for the length of a
/// dump after it has gone.
struct RouteEntry {
    MfcKey key;
    OifSet oifs;               // of the kernel, without the IIF and internal interfaces
    OifSet installedOifs;      // of the sink
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

    /// Null where there is none.
    RouteEntry* find(const MfcKey& key);
    /// The entry of the key, made where there is none.
    RouteEntry& get(const MfcKey& key);
    /// The entry must not be queued.
    void erase(RouteEntry& entry);

    /// Puts an entry in line for the sink, where it isn't yet.
    void queue(RouteEntry& entry);
    /// The first in line, or null.
    RouteEntry* takeQueued();
    bool anyQueued() const { return !queue_.empty(); }

    /// Calls visit for each entry; visit may erase the one it is given, and none other, and adds none.
    template <class Visit>
    void each(Visit visit) {
        for (auto next = entries_.begin(); next != entries_.end();)
            visit(*next++);
    }
    template <class Visit>
    void each(Visit visit) const {
        for (const RouteEntry& entry : entries_)
            visit(entry);
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

  private:
    struct Hash {
        std::size_t operator()(const MfcKey& key) const;
    };

    std::list<RouteEntry> entries_;
    std::unordered_map<MfcKey, std::list<RouteEntry>::iterator, Hash> index_;
    std::deque<RouteEntry*> queue_;
};

} // namespace Agent::Kernel
