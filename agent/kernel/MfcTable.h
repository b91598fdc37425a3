// The routes of one table of the kernel: what is known of each, what the sink has been told, and
// which wait to be told.
//
// Entries stay in place from insert to erase. A small open-addressing index of pointers finds them, so that
// 100,000 routes cost little beside the dump that brings them. Owned by a VrfMirror, which alone changes
// entries.
#pragma once

#include "agent/kernel/KernelSink.h"
#include "agent/kernel/OifSets.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace Agent::Kernel {

/// One route. It exists while the kernel has it (present) or the sink has it (shown), and for the length of a
/// dump after it has gone.
struct MfcEntry {
    MfcKey key;
    OifSet oifs;               // of the kernel, without the IIF and internal interfaces
    OifSet shownOifs;          // of the sink
    int iif = 0;               // 0: none, the route forwards nothing
    std::uint32_t seen = 0;    // the dump that had it last
    std::uint32_t touched = 0; // the dump during which an event told its state
    std::uint8_t protocol = 0;
    RouteType shownType = RouteType::staticRoute;
    bool inUse = false;
    bool present = false;
    bool shown = false;
    bool several = false; // the kernel has more than one entry of this key, with different IIFs
    bool queued = false;  // waits to be told to the sink
    bool again = false;   // tell the sink even where nothing differs: an interface has another name
};

class MfcTable {
  public:
    std::size_t size() const { return size_; }

    /// Null where there is none.
    MfcEntry* find(const MfcKey& key);
    /// The entry of the key, made where there is none.
    MfcEntry& get(const MfcKey& key);
    /// The entry must not be queued.
    void erase(MfcEntry& entry);

    /// Puts an entry in line for the sink, where it isn't yet.
    void queue(MfcEntry& entry);
    /// The first in line, or null.
    MfcEntry* takeQueued();
    bool anyQueued() const { return !queue_.empty(); }

    /// Calls visit for each entry; visit may erase the one it is given, and none other, and adds none.
    template <class Visit>
    void each(Visit visit) {
        for (MfcEntry& entry : entries_)
            if (entry.inUse)
                visit(entry);
    }
    template <class Visit>
    void each(Visit visit) const {
        for (const MfcEntry& entry : entries_)
            if (entry.inUse)
                visit(entry);
    }

    /// Queues the entries for which chosen(entry) is true.
    template <class Chosen>
    void queueIf(Chosen chosen) {
        each([&](MfcEntry& entry) {
            if (chosen(entry))
                queue(entry);
        });
    }
    void queueAll() {
        queueIf([](const MfcEntry&) { return true; });
    }

  private:
    std::size_t home(const MfcKey& key) const;
    std::size_t slotOf(const MfcKey& key) const;
    void grow();

    std::deque<MfcEntry> entries_;
    std::vector<MfcEntry*> free_;
    std::vector<MfcEntry*> index_; // power of two; linear probing, at most 3/4 full, null is empty
    std::deque<MfcEntry*> queue_;
    std::size_t size_ = 0;
};

} // namespace Agent::Kernel
