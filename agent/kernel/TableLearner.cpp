#include "agent/kernel/TableLearner.h"

#include <algorithm>
#include <utility>

namespace Agent::Kernel {
namespace {

using namespace std::chrono_literals;

// Disturbed dumps are repeated at once so often; then they take at most a fifth of the time.
constexpr unsigned repeatsAtOnce = 3;
constexpr int pauseFactor = 4;
constexpr TableLearner::Clock::duration shortestPause = 50ms;
constexpr TableLearner::Clock::duration longestPause = 10s;

} // namespace

void TableLearner::startOver() {
    vifs_.clear();
    synced_ = false;
    abandonDump();
    notBefore_ = {};
}

RouteEntry& TableLearner::takeQueued() {
    RouteEntry& entry = *routes_.find(queue_.front());
    queue_.pop_front();
    entry.queued = false;
    return entry;
}

void TableLearner::learn(const MfcRoute& route) {
    RouteEntry& entry = entryOf(route.key);
    // A (*,G) entry with another IIF can be the old one changed, or one more beside it: only a dump can tell.
    const bool isOther = entry.present && route.key.source == 0 && entry.iif != route.iif;
    if (entry.several || isOther)
        dumpWanted_ = true;
    if (entry.several)
        return;
    entry.touched = dump_;
    const bool wasQueued = entry.queued;
    if (!merge(entry, route))
        ++shared_.counters.unchanged;
    else if (wasQueued)
        ++shared_.counters.coalesced;
}

void TableLearner::learnGone(const MfcKey& key) {
    RouteEntry* entry = dumpActive() ? &entryOf(key) : routes_.find(key);
    if (!entry)
        return;
    // Without an IIF, one entry looks like several.
    if (entry->several || (key.source == 0 && entry->iif == 0))
        dumpWanted_ = true;
    if (entry->several)
        return;
    entry->touched = dump_;
    setPresent(*entry, false);
    if (entry->queued)
        ++shared_.counters.coalesced;
    queue(*entry);
}

// The VIFs may have been read since the interface went: routes that have it are then older than they.
void TableLearner::linkGone(int ifindex) {
    if (std::erase_if(vifs_, [&](const Vif& vif) { return vif.ifindex == ifindex; }) > 0) {
        disturbDump();
        wantDumpForSeveral();
    }
    strip([&](int other) { return other == ifindex; });
}

void TableLearner::linkChanged(int ifindex) {
    const bool isInternal = shared_.interfaces.isInternal(ifindex);
    queueIf([&](RouteEntry& entry) {
        return isInternal ? std::erase(entry.oifs, ifindex) > 0
                          : std::ranges::binary_search(entry.oifs, ifindex);
    });
}

// A VIF that went takes its interface out of all routes, and nothing else. One that came can bring interfaces
// back into routes, as the kernel remembers a route's OIFs by the index of the VIF; so can one that came and went
// since the last time, as a dump may have met it.
void TableLearner::takeVifs(std::vector<Vif> vifs, const std::set<int>& added) {
    const bool cameOrMoved = std::ranges::any_of(vifs, [&](const Vif& vif) {
        return added.contains(vif.ifindex) || std::ranges::find(vifs_, vif) == vifs_.end();
    });
    if (vifs != vifs_ || !added.empty())
        wantDumpForSeveral();
    vifs_ = std::move(vifs);
    if (cameOrMoved && routes_.size() > 0)
        dumpWanted_ = true;
    strip([&](int ifindex) { return std::ranges::find(vifs_, ifindex, &Vif::ifindex) == vifs_.end(); });
}

std::optional<TableLearner::Clock::time_point> TableLearner::queryDueAt() const {
    if (missing())
        return Clock::time_point();
    return dumpWanted_ ? std::optional(notBefore_) : std::nullopt;
}

void TableLearner::beginDump(Clock::time_point now) {
    ++dump_;
    ++shared_.counters.resyncs;
    dumpWanted_ = false;
    dumpOpen_ = true;
    disturbed_ = false;
    dumpBegan_ = now;
}

void TableLearner::learnFromDump(const MfcRoute& route) {
    RouteEntry& entry = entryOf(route.key);
    if (entry.touched == dump_) {
        const bool isAnother = entry.iif != route.iif || std::exchange(entry.seen, dump_) == dump_;
        dumpWanted_ = dumpWanted_ || (route.key.source == 0 && isAnother);
    } else if (entry.seen != dump_) {
        entry.several = false;
        entry.seen = dump_;
        merge(entry, route);
    } else {
        // One more entry of the same key: together they are one route with the interfaces of all that forward.
        entry.several = true;
        if (route.iif == 0)
            return;
        entry.oifs = oifsOf(route, entry.iif ? entry.oifs : std::vector<int>());
        entry.iif = entry.iif ? entry.iif : route.iif;
        queue(entry);
    }
}

void TableLearner::endDump(Clock::time_point now) {
    dumpOpen_ = false;
    for (const RouteEntry& entry : routes_.walk())
        if (entry.present && entry.seen != dump_ && entry.touched != dump_)
            missing_.push_back(entry.key);
    if (missing_.empty())
        settleDump(now);
}

void TableLearner::learnMissing(const MfcRoute* found, Clock::time_point now) {
    const MfcKey key = missing_.back();
    missing_.pop_back();
    ++shared_.counters.lookups;
    RouteEntry* entry = routes_.find(key);
    if (entry && entry->touched == dump_) {
        // An event has told in the meantime.
    } else if (found) {
        learnFromDump(*found);
    } else if (entry) {
        setPresent(*entry, false);
        entry->several = false;
        queue(*entry);
    }
    if (missing_.empty())
        settleDump(now);
}

void TableLearner::lookUp(std::vector<MfcKey> keys, Clock::time_point now) {
    ++dump_;
    dumpBegan_ = now;
    disturbed_ = false;
    missing_ = std::move(keys);
}

void TableLearner::settleDump(Clock::time_point now) {
    eraseGone();
    synced_ = true;
    if (!disturbed_) {
        disturbedInARow_ = 0;
        return;
    }
    ++shared_.counters.disturbed;
    dumpWanted_ = true;
    if (++disturbedInARow_ >= repeatsAtOnce)
        notBefore_ =
            now + std::clamp<Clock::duration>((now - dumpBegan_) * pauseFactor, shortestPause, longestPause);
}

void TableLearner::abandonDump() {
    dumpOpen_ = false;
    missing_.clear();
    eraseGone();
    dumpWanted_ = true;
}

// Entries stay while a dump is under way, so that it can't bring back what went meanwhile.
void TableLearner::eraseGone() {
    for (const RouteEntry& entry : routes_.walk())
        eraseIfGone(entry);
}

void TableLearner::eraseIfGone(const RouteEntry& entry) {
    if (!entry.present && !entry.installed && !entry.queued && !dumpActive())
        routes_.erase(MfcKey(entry.key));
}

// Made where there is none.
RouteEntry& TableLearner::entryOf(const MfcKey& key) {
    return *routes_.findOrInsert(key, [&] { return RouteEntry{.key = key}; }).first;
}

bool TableLearner::merge(RouteEntry& entry, const MfcRoute& route) {
    std::vector<int> oifs = oifsOf(route, {});
    if (entry.present && entry.iif == route.iif && entry.protocol == route.protocol && entry.oifs == oifs)
        return false;
    setPresent(entry, true);
    entry.iif = route.iif;
    entry.protocol = route.protocol;
    entry.oifs = std::move(oifs);
    queue(entry);
    return true;
}

void TableLearner::setPresent(RouteEntry& entry, bool isPresent) {
    if (std::exchange(entry.present, isPresent) != isPresent)
        isPresent ? ++present_ : --present_;
}

std::vector<int> TableLearner::oifsOf(const MfcRoute& route, std::vector<int> more) const {
    for (int ifindex : route.oifs)
        if (ifindex != route.iif && !shared_.interfaces.isInternal(ifindex))
            more.push_back(ifindex);
    std::ranges::sort(more);
    more.erase(std::unique(more.begin(), more.end()), more.end());
    return more;
}

template <class Gone>
void TableLearner::strip(Gone gone) {
    queueIf([&](RouteEntry& entry) {
        if (!entry.present)
            return false;
        const bool losesIif = entry.iif != 0 && gone(entry.iif);
        if (losesIif)
            entry.iif = 0;
        return std::erase_if(entry.oifs, gone) > 0 || losesIif;
    });
}

// Which of several entries of one key a VIF leaves isn't known.
void TableLearner::wantDumpForSeveral() {
    for (const RouteEntry& entry : routes_.walk())
        dumpWanted_ = dumpWanted_ || entry.several;
}

} // namespace Agent::Kernel
