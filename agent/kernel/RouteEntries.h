// The routes of one table of the kernel: what is known of each, what is installed in the agent's tables, and which
// wait to be told to the sink.
//
// A TableLearner owns it and changes what the kernel has of an entry; MirroredVrf changes what is installed, and
// Verification, which installs nothing, marks there which entries it found.
#pragma once

#include "agent/host/RouteSource.h"
#include "agent/kernel/KernelMessage.h"
#include "state/Table.h"

#include <deque>
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

struct RouteEntryKey {
    const MfcKey& operator()(const RouteEntry& entry) const { return entry.key; }
};

class RouteEntries : public State::Table<RouteEntry, RouteEntryKey> {
  public:
    RouteEntries()
        : Table(State::processHashSeed()) {}

    /// The entry of the key, made where there is none.
    RouteEntry& get(const MfcKey& key) {
        return *findOrInsert(key, [&] { return RouteEntry{.key = key}; }).first;
    }

    /// Puts an entry in line for the sink, where it isn't yet. It must not be erased until it is taken.
    void queue(RouteEntry& entry) {
        if (!std::exchange(entry.queued, true))
            queue_.push_back(entry.key);
    }
    /// Queues the entries for which chosen(entry) is true.
    template <class Chosen>
    void queueIf(Chosen chosen) {
        for (RouteEntry& entry : walk())
            if (chosen(entry))
                queue(entry);
    }
    void queueAll() {
        queueIf([](const RouteEntry&) { return true; });
    }
    bool anyQueued() const { return !queue_.empty(); }
    /// The first in line, which there must be.
    RouteEntry& takeQueued() {
        RouteEntry& entry = *find(queue_.front());
        queue_.pop_front();
        entry.queued = false;
        return entry;
    }

  private:
    std::deque<MfcKey> queue_;
};

} // namespace Agent::Kernel
