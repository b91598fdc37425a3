// Stands in for the hardware layer: allocates a multicast group for each row of "l3/mroutegroup/config",
// writes it to "l3/mroutegroup/status" and frees it with the row. Identifiers are given from 1 on; freed ones
// are used again first, the lowest before others. Rows of the status that somebody else wrote are left alone.
//
// The application owns one with --software-chip, made before the plug-in starts. By default the chip works on
// the next turn of the event loop, as hardware would; else inside the write of the row.
#pragma once

#include "agent/host/Stores.h"
#include "records/MrouteGroup.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>

namespace Agent {

class SoftwareChip {
  public:
    /// Makes the configuration table if it is not there yet and follows it, from the rows that it has on.
    /// @param wake sees to it that work() is called on a turn of its own; empty: the chip works inside writes.
    SoftwareChip(const Stores& stores, std::function<void()> wake);
    ~SoftwareChip();
    SoftwareChip(const SoftwareChip&) = delete;
    SoftwareChip& operator=(const SoftwareChip&) = delete;

    /// Does a part of what was put off, and wakes itself again for more.
    void work();
    /// Does now all that was put off, for who needs it settled.
    void settleAll();

  private:
    using Key = KestrelL3::IpMcastKey;

    static void notified(void* self, const State::Notification& change);
    void rowChanged(const Key& key);
    void settle(const Key& key);
    std::uint32_t freeId();

    State::Handle<const KestrelCommon::MrouteGroup::MrouteColl> config_;
    State::Handle<KestrelCommon::MrouteGroup::MgroupColl> status_;
    std::function<void()> wake_;
    std::deque<Key> pending_;
    std::map<Key, std::uint32_t> groups_;
    std::set<std::uint32_t> freed_;
    std::uint32_t lastId_ = 0;
};

} // namespace Agent
