#include "agent/kernel/NetlinkSource.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

namespace Agent::Kernel {
namespace {

// A link with many virtual functions is the longest event; a datagram that doesn't fit counts as lost.
constexpr std::size_t longestEvent = std::size_t{32} * 1024;
constexpr std::size_t routesAtOnce = 32;

} // namespace

NetlinkSource::NetlinkSource(const KernelConfig& config, TableSink& sink, std::size_t receiveBuffer)
    // As many datagrams as can wait at one moment: none occupies less of the buffer.
    : settleEvents_([this](bool anew) {
        unsettled_ = anew ? events_.bufferBytes() / 512 + 1 : unsettled_;
        return drain(unsettled_);
    })
    , config_(config)
    , sink_(sink)
    , events_(longestEvent, receiveBuffer, {RTNLGRP_IPV4_MROUTE, RTNLGRP_LINK, RTNLGRP_IPV4_NETCONF})
    , mirror_(sink) {
    mirror_.reconfigure(config);
}

// The events of one wake-up are read before the sink hears of any, as far as the time reaches.
void NetlinkSource::onReadable() {
    beginSlice(sliceTime);
    std::size_t datagrams = SIZE_MAX;
    if (drain(datagrams))
        while (!firstLook_ && mirror_.publishDue() && !sliceIsOver())
            mirror_.publish(routesAtOnce);
}

bool NetlinkSource::hasWork() const {
    return congested_ || mirror_.publishDue() || query_.busy() || mirror_.queryDue(Mirror::Clock::now()) ||
           comparison_ || finished_;
}

void NetlinkSource::doSlice(Mirror::Clock::duration time) {
    beginSlice(time);
    while (step() && !sliceIsOver()) {
    }
}

// The first look is read whole before any of it is told: for each part of a dump the kernel walks its list from the
// beginning, twice as long where telling has driven it out of the processor's caches. Later, no event waits for a dump.
// @return whether there was anything to do.
bool NetlinkSource::step() {
    firstLook_ = firstLook_ && !mirror_.synced();
    std::size_t datagrams = 0;
    if (congested_) {
        drain(datagrams);
    } else if (mirror_.publishDue() && !(firstLook_ && query_.busy())) {
        mirror_.publish(routesAtOnce);
    } else if (query_.step(mirror_, settleEvents_)) {
        // One part of an answer more.
    } else if (finished_) {
        if (finished_->verification.dismantle())
            finished_.reset();
    } else if (comparison_) {
        stepComparison();
    } else {
        return false;
    }
    return true;
}

void NetlinkSource::reconfigure(const KernelConfig& config) {
    config_ = config;
    mirror_.reconfigure(config);
    if (comparison_)
        finished_ = std::exchange(comparison_, newComparison());
}

// Gives the mirrors the events that wait: those of so many datagrams, as far as the time reaches. After a loss the
// kernel withholds every further event until none waits any more: nothing else is done before that.
// @return whether all have been given.
bool NetlinkSource::drain(std::size_t& datagrams) {
    Mirror* const mirrors[] = {&mirror_, comparison_ ? &comparison_->verification.fresh() : nullptr};
    const std::span listeners(mirrors, comparison_ ? 2 : 1);
    while (datagrams > 0 || congested_) {
        const int error = events_.receive();
        if (error == EAGAIN) {
            congested_ = false;
            return true;
        }
        const bool lost = error != 0 && error != EINTR; // whatever it was that could not be read
        congested_ = congested_ || lost;
        for (Mirror* mirror : listeners)
            if (lost)
                mirror->overrun();
        for (MessageReader reader = events_.messages(); reader.next(event_);)
            for (Mirror* mirror : listeners)
                mirror->takeEvent(event_);
        datagrams -= datagrams > 0 ? 1 : 0;
        if (sliceIsOver())
            return false;
    }
    return true;
}

void NetlinkSource::verify(VerifyDone done) {
    if (!comparison_)
        comparison_ = newComparison();
    verifyDone_.push_back(std::move(done));
}

std::unique_ptr<NetlinkSource::Comparison> NetlinkSource::newComparison() const {
    return std::make_unique<Comparison>(config_, mirror_, sink_);
}

// Called when the mirror itself has nothing to do.
void NetlinkSource::stepComparison() {
    Verification& verification = comparison_->verification;
    if (comparison_->query.step(verification.fresh(), settleEvents_) || !verification.step(settleEvents_))
        return;
    finished_ = std::move(comparison_);
    for (const VerifyDone& done : std::exchange(verifyDone_, {}))
        done(verification.result());
}

} // namespace Agent::Kernel
