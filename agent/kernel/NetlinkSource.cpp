#include "agent/kernel/NetlinkSource.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace Agent::Kernel {
namespace {

// A link with many virtual functions is the longest event; a datagram that doesn't fit counts as lost.
constexpr std::size_t longestEvent = std::size_t{32} * 1024;
constexpr std::size_t datagramsAtOnce = 8192;
constexpr std::size_t routesAtOnce = 8192;
// How often a comparison starts over because events were lost meanwhile.
constexpr unsigned verifyRoundsAtMost = 3;

} // namespace

NetlinkSource::NetlinkSource(const KernelConfig& config, TableSink& sink, std::size_t receiveBuffer)
    : config_(config)
    , sink_(sink)
    , events_(longestEvent, receiveBuffer, {RTNLGRP_IPV4_MROUTE, RTNLGRP_LINK, RTNLGRP_IPV4_NETCONF})
    , mirror_(sink) {
    mirror_.reconfigure(config);
}

void NetlinkSource::onReadable() {
    drain(datagramsAtOnce);
    if (!firstLook_)
        mirror_.publish(routesAtOnce);
}

bool NetlinkSource::hasWork() const {
    return mirror_.publishDue() || query_.busy() || mirror_.queryDue(Mirror::Clock::now()) || verification_;
}

// The first look is read whole before any of it is told: for each part of a dump the kernel walks its list from the
// beginning, twice as long where telling has driven it out of the processor's caches. Later, no event waits for a dump.
void NetlinkSource::doSlice(std::size_t maxRoutes) {
    for (std::size_t done = 0; done < maxRoutes;) {
        std::size_t routes = 0;
        firstLook_ = firstLook_ && !mirror_.synced();
        if (mirror_.publishDue() && !(firstLook_ && query_.busy()))
            routes = mirror_.publish(maxRoutes - done);
        else if (const std::size_t read = query_.step(mirror_, settleEvents_); read > 0)
            routes = read;
        else if (verification_)
            routes = stepVerify();
        else
            break;
        done += std::max<std::size_t>(routes, 1);
    }
}

void NetlinkSource::reconfigure(const KernelConfig& config) {
    config_ = config;
    mirror_.reconfigure(config);
    if (verification_)
        verification_ = std::make_unique<Verification>(config_, mirror_, sink_);
}

// Gives the mirrors the events that wait: all, or those of some datagrams. After a loss the kernel withholds every
// further event until none waits any more: then reading on has an end.
void NetlinkSource::drain(std::size_t datagrams) {
    Mirror* const mirrors[] = {&mirror_, verification_ ? &verification_->fresh() : nullptr};
    const std::span listeners(mirrors, verification_ ? 2 : 1);
    bool mustEnd = false;
    for (std::size_t read = 0; read < datagrams || mustEnd; ++read) {
        const int error = events_.receive();
        if (error == EAGAIN)
            return;
        const bool lost = error == ENOBUFS || error == EMSGSIZE;
        if (error != 0 && error != EINTR && !lost)
            throw std::system_error(error, std::generic_category(), "can't read the kernel's events");
        mustEnd = mustEnd || lost;
        for (Mirror* mirror : listeners)
            if (lost)
                mirror->overrun();
        for (MessageReader reader = events_.messages(); reader.next(event_);)
            for (Mirror* mirror : listeners)
                mirror->takeEvent(event_);
    }
}

void NetlinkSource::verify(VerifyDone done) {
    if (!verification_) {
        verification_ = std::make_unique<Verification>(config_, mirror_, sink_);
        verifyRounds_ = 0;
    }
    verifyDone_.push_back(std::move(done));
}

// Called when the mirror itself has nothing to do. @return how many routes it has dealt with, or messages.
std::size_t NetlinkSource::stepVerify() {
    if (const std::size_t read = verification_->learn(settleEvents_); read > 0)
        return read;
    settleEvents_();
    const auto now = Mirror::Clock::now();
    const bool moved = mirror_.queryDue(now) || verification_->fresh().queryDue(now);
    if (moved && ++verifyRounds_ < verifyRoundsAtMost)
        return 1;
    mirror_.publish(~std::size_t{0});
    if (!verification_->compare())
        return 1;
    const std::unique_ptr<Verification> finished = std::move(verification_);
    for (const VerifyDone& done : std::exchange(verifyDone_, {}))
        done(finished->result());
    return std::max<std::size_t>(finished->result().rows, 1);
}

} // namespace Agent::Kernel
