#include "agent/kernel/MirroredVrf.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <utility>

namespace Agent::Kernel {
namespace {

constexpr std::size_t pendingListed = 20;

} // namespace

void MirroredVrf::reconfigure(const VrfConfig& config) {
    if (leaving_ || config.table != config_.table)
        kernel_.startOver();
    if (leaving_ || config != config_)
        kernel_.queueAll();
    leaving_ = false;
    whyVrf_.clear();
    config_ = config;
    if (entered_ && !mustWithdraw())
        entered_ = config;
}

std::size_t MirroredVrf::publish(std::size_t max) {
    if (!entered_ && !leaving_ && whyVrf_.empty() && accepted(shared_.sink.putVrf(config_, false))) {
        entered_ = config_;
        kernel_.queueAll();
    }
    std::size_t told = 0;
    for (; told < max && kernel_.anyQueued(); ++told)
        settle(kernel_.takeQueued());
    if (std::exchange(rowsFreed_, false) && !refused_.empty())
        retry();
    if (!kernel_.anyQueued() && entered_ && whyVrf_.empty()) {
        if (mustWithdraw())
            remove();
        else if (enableWanted() != enabled_ && accepted(shared_.sink.putVrf(*entered_, !enabled_)))
            enabled_ = !enabled_;
    }
    return told;
}

bool MirroredVrf::hasWork() const {
    const bool vrfDiffers = entered_ ? mustWithdraw() || enableWanted() != enabled_ : !leaving_;
    return kernel_.anyQueued() || (vrfDiffers && whyVrf_.empty());
}

// An identifier can't be changed under the VRF's routes.
bool MirroredVrf::mustWithdraw() const {
    return entered_ && (leaving_ || entered_->id != config_.id);
}

void MirroredVrf::remove() {
    if (enabled_ && !accepted(shared_.sink.putVrf(*entered_, false)))
        return;
    enabled_ = false;
    if (accepted(shared_.sink.removeVrf(*entered_)))
        entered_.reset();
}

// What one VRF is refused can be what another one has just given up.
bool MirroredVrf::accepted(WhyNot why) {
    whyVrf_ = std::move(why);
    if (whyVrf_.empty())
        shared_.retry = true;
    else
        ++shared_.counters.refused;
    return whyVrf_.empty();
}

void MirroredVrf::settle(RouteEntry& entry) {
    if (entered_) {
        if (mustWithdraw() || !entry.present)
            withdraw(entry);
        else if (entry.iif != 0 || entry.installed)
            install(entry);
    }
    kernel_.eraseIfGone(entry);
}

// A route without an IIF forwards nothing; one that was installed before stays, without OIFs.
void MirroredVrf::install(RouteEntry& entry) {
    const RouteType type = entry.iif ? typeOf(entry) : entry.installedType;
    const std::vector<Oif> oifs = shared_.interfaces.named(entry.iif ? entry.oifs : std::vector<int>());
    if (entry.installed && type == entry.installedType && !entry.again &&
        std::ranges::equal(oifs, entry.installedOifs, {}, &Oif::ifindex)) {
        refused_.erase(entry.key);
        return;
    }
    if (WhyNot why = shared_.sink.putRoute(*entered_, type, entry.key, oifs); !why.empty()) {
        ++shared_.counters.refused;
        refused_[entry.key] = std::move(why);
        return;
    }
    // The row of the new type is there before that of the old one goes, so that no answer is without both.
    if (entry.installed && entry.installedType != type)
        shared_.sink.removeRoute(*entered_, entry.installedType, entry.key);
    rows_ += entry.installed ? 0 : 1;
    entry.installed = true;
    entry.installedType = type;
    entry.installedOifs.clear();
    for (const Oif& oif : oifs)
        entry.installedOifs.push_back(oif.ifindex);
    entry.again = false;
    ++shared_.counters.changes;
    refused_.erase(entry.key);
}

void MirroredVrf::withdraw(RouteEntry& entry) {
    refused_.erase(entry.key);
    if (!entry.installed)
        return;
    shared_.sink.removeRoute(*entered_, entry.installedType, entry.key);
    --rows_;
    entry.installed = false;
    entry.again = false;
    entry.installedOifs.clear();
    rowsFreed_ = true;
    ++shared_.counters.changes;
}

RouteType MirroredVrf::typeOf(const RouteEntry& entry) const {
    return config_.routeType.value_or(entry.protocol == RTPROT_STATIC ? RouteType::staticRoutes
                                                                      : RouteType::sparse);
}

void MirroredVrf::retry() {
    whyVrf_.clear();
    for (const auto& [key, why] : refused_)
        if (RouteEntry* entry = kernel_.routes().find(key))
            kernel_.queue(*entry);
}

void MirroredVrf::repeatRoutesWith(int ifindex) {
    kernel_.queueIf([&](RouteEntry& entry) {
        entry.again = entry.again || std::ranges::binary_search(entry.installedOifs, ifindex);
        return entry.again;
    });
}

WhyNot MirroredVrf::whyPending(const MfcKey& key) const {
    const auto at = refused_.find(key);
    return at == refused_.end() ? whyVrf_ : at->second;
}

void MirroredVrf::status(Text::Writer& writer) const {
    writer.beginRecord();
    writer.member("vrf", config_.name);
    writer.member("id", config_.id);
    writer.member("table", config_.table);
    writer.member("routeType", routeTypeText(config_));
    writer.member("entered", entered());
    writer.member("multicast", enabled_);
    writer.member("synced", kernel_.synced());
    writer.member("resyncWanted", kernel_.resyncPending());
    writer.member("leaving", leaving_);
    writer.member("routes", kernel_.routeCount());
    writer.member("rows", rows_);
    writer.list("vifs", kernel_.vifs(),
                [&](const Vif& vif) { writer.value(shared_.interfaces.nameOf(vif.ifindex)); });
    writer.member("pendingCount", pendingCount());
    writer.field("pending");
    writer.beginList();
    if (!whyVrf_.empty())
        writer.record("what", "VRF", "why", whyVrf_);
    std::size_t left = pendingListed - (whyVrf_.empty() ? 0 : 1);
    for (auto at = refused_.begin(); at != refused_.end() && left > 0; ++at, --left)
        writer.record("what", "route " + mfcKeyText(at->first), "why", at->second);
    writer.end();
    writer.end();
}

} // namespace Agent::Kernel
