#include "agent/kernel/KernelTable.h"

#include <algorithm>
#include <utility>

namespace Agent::Kernel {
namespace {

using namespace std::chrono_literals;

// Disturbed dumps are repeated at once so often; then they take at most a fifth of the time.
constexpr unsigned repeatsAtOnce = 3;
constexpr int pauseFactor = 4;
constexpr KernelTable::Clock::duration shortestPause = 50ms;
constexpr KernelTable::Clock::duration longestPause = 10s;
constexpr KernelTable::Clock::duration failurePause = 1s;

} // namespace

// What is known stands until the next dump confirms or changes it.
void KernelTable::isAnother() {
    vifs_.clear();
    absentees_.clear();
    dumpOpen_ = false;
    synced_ = false;
    dumpWanted_ = true;
    notBefore_ = {};
    eraseGone();
}

void KernelTable::routeEvent(const MfcRoute& route) {
    MfcEntry& entry = routes_.get(route.key);
    // A (*,G) entry with another IIF can be the old one changed, or one more beside it: only a dump can tell.
    bool isOther = entry.present && route.key.source == 0 && entry.iif != route.iif;
    if (entry.several || isOther)
        dumpWanted_ = true;
    if (entry.several)
        return;
    entry.touched = dump_;
    bool wasQueued = entry.queued;
    if (!merge(entry, route))
        ++shared_.counters.unchanged;
    else if (wasQueued)
        ++shared_.counters.coalesced;
}

void KernelTable::routeGoneEvent(const MfcKey& key) {
    MfcEntry* entry = dumpActive() ? &routes_.get(key) : routes_.find(key);
    if (!entry)
        return;
    // Without an IIF, one entry looks like several.
    if (entry->several || (key.source == 0 && entry->iif == 0))
        dumpWanted_ = true;
    if (entry->several)
        return;
    entry->touched = dump_;
    entry->present = false;
    if (entry->queued)
        ++shared_.counters.coalesced;
    routes_.queue(*entry);
}

// The VIFs may have been read since the interface went: routes that have it are then older than they.
void KernelTable::linkGone(int ifindex) {
    if (hasVif(ifindex)) {
        disturbDump();
        std::erase_if(vifs_, [&](const Vif& vif) { return vif.ifindex == ifindex; });
        dumpForSeveral();
    }
    strip([&](int other) { return other == ifindex; });
}

void KernelTable::linkKnown(int ifindex) {
    routes_.queueIf([&](const MfcEntry& entry) { return entry.oifs.contains(ifindex); });
}

void KernelTable::linkInternal(int ifindex) {
    if (!shared_.oifSets.uses(ifindex))
        return;
    routes_.queueIf([&](MfcEntry& entry) {
        if (!entry.oifs.contains(ifindex))
            return false;
        scratch_.assign(entry.oifs.members().begin(), entry.oifs.members().end());
        std::erase(scratch_, ifindex);
        entry.oifs = shared_.oifSets.get(scratch_);
        return true;
    });
}

// A VIF that went takes its interface out of all routes, and nothing else. One that came can bring interfaces
// back into routes, as the kernel remembers a route's OIFs by the index of the VIF.
void KernelTable::vifsAre(std::vector<Vif> vifs, const std::set<int>& added) {
    bool cameOrMoved = std::any_of(vifs.begin(), vifs.end(), [&](const Vif& vif) {
        return added.contains(vif.ifindex) || std::find(vifs_.begin(), vifs_.end(), vif) == vifs_.end();
    });
    bool same = vifs == vifs_;
    vifs_ = std::move(vifs);
    if (!same)
        dumpForSeveral();
    if (cameOrMoved && routes_.size() > 0)
        dumpWanted_ = true;
    strip([&](int ifindex) { return !hasVif(ifindex); });
}

bool KernelTable::hasVif(int ifindex) const {
    return std::any_of(vifs_.begin(), vifs_.end(), [&](const Vif& vif) { return vif.ifindex == ifindex; });
}

std::optional<KernelTable::Clock::time_point> KernelTable::dumpWaitsUntil() const {
    return dumpWanted_ ? std::optional(notBefore_) : std::nullopt;
}

void KernelTable::dumpBegins(Clock::time_point now) {
    ++dump_;
    ++shared_.counters.resyncs;
    dumpWanted_ = false;
    dumpOpen_ = true;
    disturbed_ = false;
    dumpBegan_ = now;
}

void KernelTable::dumpEntry(const MfcRoute& route) {
    MfcEntry& entry = routes_.get(route.key);
    if (entry.touched == dump_) {
        dumpWanted_ = dumpWanted_ || (route.key.source == 0 && entry.iif != route.iif);
        return;
    }
    if (entry.seen == dump_) {
        addTo(entry, route);
        return;
    }
    entry.several = false;
    entry.seen = dump_;
    merge(entry, route);
}

// One more entry of the same key: together they are one route with the interfaces of all that forward.
void KernelTable::addTo(MfcEntry& entry, const MfcRoute& route) {
    entry.several = true;
    if (route.iif == 0)
        return;
    entry.oifs = oifsOf(route, entry.iif ? entry.oifs : OifSet());
    entry.iif = entry.iif ? entry.iif : route.iif;
    routes_.queue(entry);
}

void KernelTable::dumpDone(Clock::time_point now) {
    dumpOpen_ = false;
    routes_.each([&](MfcEntry& entry) {
        if (entry.present && entry.seen != dump_ && entry.touched != dump_)
            absentees_.push_back(entry.key);
    });
    if (absentees_.empty())
        dumpSettled(now);
}

void KernelTable::absenteeIs(const MfcRoute* found, Clock::time_point now) {
    MfcKey key = absentees_.back();
    absentees_.pop_back();
    ++shared_.counters.lookups;
    MfcEntry* entry = routes_.find(key);
    if (entry && entry->touched == dump_) {
        // An event has told in the meantime.
    } else if (found) {
        dumpEntry(*found);
    } else if (entry) {
        entry->present = false;
        entry->several = false;
        routes_.queue(*entry);
    }
    if (absentees_.empty())
        dumpSettled(now);
}

void KernelTable::lookUp(std::vector<MfcKey> keys, Clock::time_point now) {
    ++dump_;
    dumpBegan_ = now;
    disturbed_ = false;
    absentees_ = std::move(keys);
}

void KernelTable::dumpSettled(Clock::time_point now) {
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

void KernelTable::dumpFailed(Clock::time_point now) {
    dumpOpen_ = false;
    absentees_.clear();
    eraseGone();
    dumpWanted_ = true;
    notBefore_ = now + failurePause;
}

// Entries stay while a dump is under way, so that it can't bring back what went meanwhile.
void KernelTable::eraseGone() {
    routes_.each([&](MfcEntry& entry) { eraseIfGone(entry); });
}

bool KernelTable::merge(MfcEntry& entry, const MfcRoute& route) {
    OifSet oifs = oifsOf(route, {});
    if (entry.present && entry.iif == route.iif && entry.protocol == route.protocol && entry.oifs == oifs)
        return false;
    entry.present = true;
    entry.iif = route.iif;
    entry.protocol = route.protocol;
    entry.oifs = std::move(oifs);
    routes_.queue(entry);
    return true;
}

OifSet KernelTable::oifsOf(const MfcRoute& route, const OifSet& more) {
    scratch_.assign(more.members().begin(), more.members().end());
    for (int ifindex : route.oifs)
        if (ifindex != route.iif && !shared_.interfaces.isInternal(ifindex))
            scratch_.push_back(ifindex);
    return shared_.oifSets.get(scratch_);
}

template <class Gone>
void KernelTable::strip(Gone gone) {
    routes_.queueIf([&](MfcEntry& entry) {
        if (!entry.present)
            return false;
        std::span<const int> members = entry.oifs.members();
        bool losesIif = entry.iif != 0 && gone(entry.iif);
        bool losesOif = std::any_of(members.begin(), members.end(), gone);
        if (losesIif)
            entry.iif = 0;
        if (losesOif) {
            scratch_.assign(members.begin(), members.end());
            std::erase_if(scratch_, gone);
            entry.oifs = shared_.oifSets.get(scratch_);
        }
        return losesIif || losesOif;
    });
}

// Which of several entries of one key a VIF leaves isn't known.
void KernelTable::dumpForSeveral() {
    routes_.each([&](const MfcEntry& entry) { dumpWanted_ = dumpWanted_ || entry.several; });
}

void KernelTable::eraseIfGone(MfcEntry& entry) {
    if (!entry.present && !entry.shown && !entry.queued && !dumpActive())
        routes_.erase(entry);
}

} // namespace Agent::Kernel
