// What one table of the kernel holds, as far as events and dumps have told: its routes and its VIFs.
//
// It only learns: an entry that changes is queued, and MirroredVrf tells the sink from there. A dump is not one moment
// of the kernel: routes come, change and go while it runs, and one that is deleted makes it miss another. Therefore:
// - an event of a route during the dump wins over what the dump says of it (touched);
// - a route that a dump didn't have is removed only when the kernel, asked for that one, denies it;
// - a dump during which something happened that could have made it miss or misstate a route (disturbed) is
//   repeated, soon a few times, then at a distance in proportion to its length.
// So the mirror follows the kernel also under churn that never lets a dump be clean. A MirroredVrf owns it; Mirror
// brings the messages.
#pragma once

#include "agent/kernel/MirrorShared.h"
#include "state/Table.h"

#include <chrono>
#include <deque>
#include <optional>
#include <set>
#include <utility>

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
    bool installed = false; // as a row of the sink
    bool several = false;   // the kernel has more than one entry of this key, with different IIFs
    bool queued = false;    // waits to be told to the sink
    bool again = false;     // tell the sink even where nothing differs: an interface has another name
};

struct RouteEntryKey {
    const MfcKey& operator()(const RouteEntry& entry) const { return entry.key; }
};

/// In the order in which they came.
using RouteEntries = State::Table<RouteEntry, RouteEntryKey>;

class TableLearner {
  public:
    using Clock = std::chrono::steady_clock;

    explicit TableLearner(MirrorShared& shared)
        : shared_(shared) {}

    RouteEntries& routes() { return routes_; }
    const RouteEntries& routes() const { return routes_; }
    /// Those that the kernel has.
    std::size_t routeCount() const { return present_; }
    const std::vector<Vif>& vifs() const { return vifs_; }

    /// Puts an entry in line for the sink, where it isn't yet.
    void queue(RouteEntry& entry) {
        if (!std::exchange(entry.queued, true))
            queue_.push_back(entry.key);
    }
    /// Queues the entries for which chosen(entry) is true.
    template <class Chosen>
    void queueIf(Chosen chosen) {
        for (RouteEntry& entry : routes_.walk())
            if (chosen(entry))
                queue(entry);
    }
    void queueAll() {
        queueIf([](const RouteEntry&) { return true; });
    }
    bool anyQueued() const { return !queue_.empty(); }
    /// The first in line, which there must be.
    RouteEntry& takeQueued();

    /// Messages of another table follow, or of this one after a gap. What is known stands until the next dump.
    void startOver();

    /// @param route neither unresolved nor with group zero.
    void learn(const MfcRoute& route);
    void learnGone(const MfcKey& key);
    /// Something happened that can make the dump under way, if any, miss or misstate a route.
    void disturbDump() { disturbed_ = disturbed_ || dumpOpen_; }
    /// Events were lost, or may have been: dump the table (again).
    void wantDump() { dumpWanted_ = true; }
    /// The interface has gone: it has left every route and every VIF without an event of theirs.
    void linkGone(int ifindex);
    /// The interface, which routes may have had for a while, has got a name, or turned out to be internal.
    void linkChanged(int ifindex);
    /// Takes the VIFs of the table, as read just now, and which interfaces became VIFs of any since the last time.
    void takeVifs(std::vector<Vif> vifs, const std::set<int>& added);

    // A dump begins, brings entries, and ends when the kernel has said so and all events from before that moment
    // have been given; then the routes that it lacks are asked for one by one.
    bool dumpDue(Clock::time_point now) const { return dumpWanted_ && now >= notBefore_; }
    /// When there is a route to ask for, or a dump.
    std::optional<Clock::time_point> queryDueAt() const;
    bool dumpOpen() const { return dumpOpen_; }
    void beginDump(Clock::time_point now);
    void learnFromDump(const MfcRoute& route);
    void endDump(Clock::time_point now);
    /// Has it begin anew later.
    void abandonDump();
    /// The route to ask for next; null: none.
    const MfcKey* missing() const { return missing_.empty() ? nullptr : &missing_.back(); }
    /// @param found what the kernel has of missing(); null is nothing.
    void learnMissing(const MfcRoute* found, Clock::time_point now);
    /// Asks for routes beyond those that a dump left open; only while no dump is under way.
    void lookUp(std::vector<MfcKey> keys, Clock::time_point now);
    /// Whether a dump of this table has been merged.
    bool synced() const { return synced_; }
    bool resyncPending() const { return dumpWanted_ || dumpActive(); }

    /// Forgets an entry that neither the kernel nor the sink has.
    void eraseIfGone(const RouteEntry& entry);

  private:
    bool dumpActive() const { return dumpOpen_ || !missing_.empty(); }
    void settleDump(Clock::time_point now);
    void eraseGone();
    RouteEntry& entryOf(const MfcKey& key);
    bool merge(RouteEntry& entry, const MfcRoute& route);
    void setPresent(RouteEntry& entry, bool isPresent);
    std::vector<int> oifsOf(const MfcRoute& route, std::vector<int> more) const;
    template <class Gone>
    void strip(Gone gone);
    void wantDumpForSeveral();

    MirrorShared& shared_;
    RouteEntries routes_{State::processHashSeed()};
    std::size_t present_ = 0;  // of the routes
    std::deque<MfcKey> queue_; // routes that wait to be told to the sink
    std::vector<Vif> vifs_;
    bool dumpWanted_ = true;
    bool dumpOpen_ = false; // between its beginning and the kernel's "done"
    bool disturbed_ = false;
    bool synced_ = false;
    std::uint32_t dump_ = 0; // the number of the latest
    unsigned disturbedInARow_ = 0;
    Clock::time_point dumpBegan_{};
    Clock::time_point notBefore_{};
    std::vector<MfcKey> missing_; // the last one is asked for first
};

} // namespace Agent::Kernel
