#include "agent/kernel/MfcSource.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace Agent::Kernel {
namespace {

constexpr std::size_t datagramsAtOnce = 8192;
constexpr std::size_t routesAtOnce = 8192;
// No event occupies less of the receive buffer: this many can wait at one moment at most.
constexpr std::size_t leastEventBytes = 512;
// How often a comparison starts over because events were lost meanwhile.
constexpr unsigned verifyRoundsAtMost = 3;

Fd openTimer() {
    Fd fd(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!fd)
        throw std::system_error(errno, std::generic_category(), "can't create a timer");
    return fd;
}

} // namespace

MfcSource::MfcSource(const KernelConfig& config, KernelSink& sink, std::size_t receiveBuffer)
    : config_(config)
    , sink_(sink)
    , subscription_(receiveBuffer)
    , timer_(openTimer())
    , mirror_(sink) {
    mirror_.configIs(config);
}

void MfcSource::onReadable(int fd) {
    if (fd == timer_.get()) {
        std::uint64_t expired = 0;
        while (::read(fd, &expired, sizeof expired) < 0 && errno == EINTR) {
        }
        return;
    }
    drain(datagramsAtOnce);
    if (!firstLook_)
        mirror_.publish(routesAtOnce);
    setTimer();
}

bool MfcSource::hasWork() const {
    return mirror_.publishDue() || query_.busy() || mirror_.queryDue(MfcMirror::Clock::now()) || verify_;
}

// The first look is read whole before any of it is told: for each part of a dump the kernel walks its list
// from the beginning, which takes twice as long once the work of telling has driven the list out of the
// processor's caches. Later, telling comes before asking, so that no event waits for a dump.
void MfcSource::doSlice(std::size_t maxRoutes) {
    for (std::size_t done = 0; done < maxRoutes;) {
        std::size_t routes = 0;
        firstLook_ = firstLook_ && !mirror_.synced();
        if (mirror_.publishDue() && !(firstLook_ && query_.busy()))
            routes = mirror_.publish(maxRoutes - done);
        else if (std::size_t read = query_.step(mirror_, [this] { settleEvents(); }); read > 0)
            routes = read;
        else if (verify_)
            routes = stepVerify();
        else
            break;
        done += std::max<std::size_t>(routes, 1);
    }
    setTimer();
}

void MfcSource::configIs(const KernelConfig& config) {
    config_ = config;
    mirror_.configIs(config);
    if (verify_)
        verify_ = std::make_unique<MfcVerify>(config_, mirror_, sink_);
}

KernelStatus MfcSource::status() const {
    KernelStatus status = mirror_.status();
    status.receiveBuffer = subscription_.bufferBytes();
    return status;
}

// After a loss the kernel withholds every further event until none waits any more: then reading on has an
// end.
bool MfcSource::drain(std::size_t datagrams) {
    std::array<MfcMirror*, 2> mirrors{&mirror_, verify_ ? &verify_->fresh() : nullptr};
    std::span<MfcMirror* const> listening(mirrors.data(), verify_ ? 2 : 1);
    bool mustEnd = false;
    for (std::size_t read = 0; read < datagrams || mustEnd;) {
        Subscription::Batch batch = subscription_.receive(listening);
        if (batch.lost)
            for (MfcMirror* mirror : listening)
                mirror->overrun();
        mustEnd = mustEnd || batch.lost;
        read += std::max<std::size_t>(batch.datagrams, 1);
        if (batch.drained)
            return true;
    }
    return false;
}

void MfcSource::settleEvents() {
    drain(subscription_.bufferBytes() / leastEventBytes + 1);
}

void MfcSource::verify(VerifyDone done) {
    if (!verify_) {
        verify_ = std::make_unique<MfcVerify>(config_, mirror_, sink_);
        verifyRounds_ = 0;
    }
    verifyDone_.push_back(std::move(done));
}

VerifyResult MfcSource::verifyNow() {
    std::optional<VerifyResult> result;
    verify([&](const VerifyResult& found) { result = found; });
    while (!result)
        doSlice(routesAtOnce);
    return *result;
}

// Called when the mirror itself has nothing to do. Says how many routes it has dealt with, or messages.
std::size_t MfcSource::stepVerify() {
    if (std::size_t read = verify_->learn([this] { settleEvents(); }); read > 0)
        return read;
    settleEvents();
    auto now = MfcMirror::Clock::now();
    bool moved = mirror_.queryDue(now) || verify_->fresh().queryDue(now);
    if (moved && ++verifyRounds_ < verifyRoundsAtMost)
        return 1;
    mirror_.publish(~std::size_t{0});
    if (!verify_->compare())
        return 1;
    std::unique_ptr<MfcVerify> finished = std::move(verify_);
    for (const VerifyDone& done : std::exchange(verifyDone_, {}))
        done(finished->result());
    return std::max<std::size_t>(finished->result().rows, 1);
}

void MfcSource::setTimer() {
    std::optional<MfcMirror::Clock::time_point> due = mirror_.queryWaitsUntil();
    if (!due || *due == timerAt_ || *due <= MfcMirror::Clock::now())
        return;
    timerAt_ = *due;
    auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(due->time_since_epoch());
    itimerspec when{};
    when.it_value.tv_sec = since.count() / 1'000'000'000;
    when.it_value.tv_nsec = since.count() % 1'000'000'000;
    ::timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &when, nullptr);
}

} // namespace Agent::Kernel
