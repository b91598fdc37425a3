#include "agent/kernel/VrfMirror.h"

#include <linux/rtnetlink.h>
#include <utility>

namespace Agent::Kernel {
namespace {

constexpr std::size_t pendingListed = 20;

} // namespace

void VrfMirror::configIs(const VrfConfig& config) {
    if (leaving_ || config.table != config_.table)
        kernel_.isAnother();
    leaving_ = false;
    whyVrf_.clear();
    if (config.routeType != config_.routeType)
        kernel_.routes().queueAll();
    config_ = config;
    if (entered_ && !mustHide())
        entered_ = config;
}

void VrfMirror::leave() {
    leaving_ = true;
    whyVrf_.clear();
}

std::size_t VrfMirror::publish(std::size_t max) {
    if (mustHide() != hiding_) {
        hiding_ = mustHide();
        kernel_.routes().queueAll();
    }
    if (!entered_ && !leaving_ && whyVrf_.empty())
        enter();
    std::size_t told = publishRoutes(max);
    if (!kernel_.routes().anyQueued() && entered_ && whyVrf_.empty()) {
        if (hiding_)
            withdraw();
        else
            switchMulticast();
    }
    return told;
}

bool VrfMirror::hasWork() const {
    if (kernel_.routes().anyQueued() || mustHide() != hiding_)
        return true;
    if (!whyVrf_.empty())
        return false;
    return entered_ ? hiding_ || enableWanted() != enabled_ : !leaving_;
}

// An identifier can't be changed under the VRF's routes.
bool VrfMirror::mustHide() const {
    return entered_ && (leaving_ || entered_->id != config_.id);
}

void VrfMirror::enter() {
    std::string why;
    if (!accepted(shared_.sink.vrf(config_, false, why), why))
        return;
    entered_ = config_;
    kernel_.routes().queueAll();
}

void VrfMirror::withdraw() {
    std::string why;
    if (enabled_ && !accepted(shared_.sink.vrf(*entered_, false, why), why))
        return;
    enabled_ = false;
    if (accepted(shared_.sink.vrfGone(*entered_, why), why))
        entered_.reset();
}

void VrfMirror::switchMulticast() {
    std::string why;
    if (enableWanted() != enabled_ && accepted(shared_.sink.vrf(*entered_, !enabled_, why), why))
        enabled_ = !enabled_;
}

// What one VRF is refused can be what another one has just given up.
bool VrfMirror::accepted(bool yes, const std::string& why) {
    if (yes) {
        shared_.retry = true;
    } else {
        ++shared_.counters.refused;
        whyVrf_ = why.empty() ? "refused" : why;
    }
    return yes;
}

std::size_t VrfMirror::publishRoutes(std::size_t max) {
    std::size_t told = 0;
    for (MfcEntry* entry; told < max && (entry = kernel_.routes().takeQueued()); ++told)
        settle(*entry);
    if (std::exchange(rowsFreed_, false) && !refused_.empty())
        retry();
    return told;
}

void VrfMirror::settle(MfcEntry& entry) {
    if (entered_) {
        if (hiding_ || !entry.present)
            hide(entry);
        else if (entry.iif != 0 || entry.shown)
            show(entry);
    }
    kernel_.eraseIfGone(entry);
}

// A route without an IIF forwards nothing; one that was shown before stays, without OIFs.
void VrfMirror::show(MfcEntry& entry) {
    RouteType type = entry.iif ? typeOf(entry) : entry.shownType;
    OifSet oifs = entry.iif ? entry.oifs : OifSet();
    std::span<const Oif> named = shared_.oifSets.named(oifs, shared_.interfaces);
    if (named.size() < oifs.members().size())
        oifs = shared_.oifSets.get(named);
    if (entry.shown && type == entry.shownType && oifs == entry.shownOifs && !entry.again) {
        refused_.erase(entry.key);
        return;
    }
    std::string why;
    if (!shared_.sink.route(*entered_, type, entry.key, named, why)) {
        ++shared_.counters.refused;
        refused_[entry.key] = std::move(why);
        return;
    }
    // The row of the new type is there before that of the old one goes, so that no answer is without both.
    if (entry.shown && entry.shownType != type)
        shared_.sink.routeGone(*entered_, entry.shownType, entry.key);
    entry.shown = true;
    entry.shownType = type;
    entry.shownOifs = std::move(oifs);
    entry.again = false;
    ++shared_.counters.changes;
    refused_.erase(entry.key);
}

void VrfMirror::hide(MfcEntry& entry) {
    refused_.erase(entry.key);
    if (!entry.shown)
        return;
    shared_.sink.routeGone(*entered_, entry.shownType, entry.key);
    entry.shown = false;
    entry.again = false;
    entry.shownOifs = {};
    rowsFreed_ = true;
    ++shared_.counters.changes;
}

RouteType VrfMirror::typeOf(const MfcEntry& entry) const {
    switch (config_.routeType) {
    case RouteTypeRule::staticRoutes:
        return RouteType::staticRoute;
    case RouteTypeRule::sparse:
        return RouteType::sparseMode;
    case RouteTypeRule::byProtocol:
        break;
    }
    return entry.protocol == RTPROT_STATIC ? RouteType::staticRoute : RouteType::sparseMode;
}

void VrfMirror::retry() {
    whyVrf_.clear();
    for (const auto& [key, why] : refused_)
        if (MfcEntry* entry = kernel_.routes().find(key))
            kernel_.routes().queue(*entry);
}

void VrfMirror::renamed(int ifindex) {
    kernel_.routes().queueIf([&](MfcEntry& entry) {
        entry.again = entry.again || entry.shownOifs.contains(ifindex);
        return entry.again;
    });
}

std::string VrfMirror::whyPending(const MfcKey& key) const {
    auto at = refused_.find(key);
    return at == refused_.end() ? whyVrf_ : at->second;
}

VrfState VrfMirror::state() const {
    VrfState state;
    state.config = config_;
    state.entered = entered_.has_value();
    state.multicastEnabled = enabled_;
    state.synced = kernel_.synced();
    state.resyncWanted = kernel_.resyncPending();
    state.leaving = leaving_;
    kernel_.routes().each([&](const MfcEntry& entry) {
        state.routes += entry.present;
        state.rows += entry.shown;
    });
    state.vifs = kernel_.vifs();
    for (const Vif& vif : state.vifs)
        state.vifNames.push_back(shared_.interfaces.nameOf(vif.ifindex));
    state.pendingCount = refused_.size() + !whyVrf_.empty();
    if (!whyVrf_.empty())
        state.pending.push_back({.what = "VRF", .why = whyVrf_});
    for (const auto& [key, why] : refused_) {
        if (state.pending.size() >= pendingListed)
            break;
        state.pending.push_back({.what = "route " + mfcKeyText(key), .why = why});
    }
    return state;
}

} // namespace Agent::Kernel
