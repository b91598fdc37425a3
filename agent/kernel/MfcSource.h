// The Linux kernel as the source of the agent's multicast routes: owns the sockets, and turns their events
// and answers into calls of the sink by way of the mirror.
//
// It knows no event loop: it names descriptors to watch, is told when one is readable, and says whether it
// has work left for slices in between. The events of one wake-up are all read before the sink hears of any,
// so that however often a route changed, the sink hears of it once; and all are told before the loop sleeps
// again. A large dump is worked off in slices, with other clients of the loop served between them.
//
// It needs no privilege. main() owns it; the sink outlives it. One thread. Read next: MfcMirror.h.
#pragma once

#include "agent/kernel/MfcVerify.h"
#include "agent/kernel/NetlinkSocket.h"

#include <array>
#include <cstddef>
#include <functional>
#include <memory>

namespace Agent::Kernel {

class MfcSource {
  public:
    using VerifyDone = std::function<void(const VerifyResult&)>;

    /// The kernel counts an event as some 800 bytes: this holds 10,000 of them.
    static constexpr std::size_t defaultReceiveBuffer = 8UL * 1024 * 1024;

    /// Subscribes; everything else is done by the calls below.
    /// @throws std::system_error when the kernel refuses a socket.
    MfcSource(const KernelConfig& config, KernelSink& sink, std::size_t receiveBuffer = defaultReceiveBuffer);

    /// To be watched for reading as long as the source lives.
    std::array<int, 2> descriptors() const { return {subscription_.fd(), timer_.get()}; }
    void onReadable(int fd);

    /// Whether the loop must not sleep, as doSlice() has something to do.
    bool hasWork() const;
    /// Does some work: tells the sink of up to maxRoutes routes, or reads about as many from the kernel.
    void doSlice(std::size_t maxRoutes);

    /// Puts another configuration in force; what it doesn't change stays as it is.
    void configIs(const KernelConfig& config);
    /// Tries again what the sink refused; to be called when something else has changed the tables.
    void retry() { mirror_.retry(); }

    /// Whether the tables have had a first full look at the kernel, with nothing of it left to tell.
    bool synced() const { return mirror_.synced() && !mirror_.publishDue(); }
    KernelStatus status() const;

    /// Compares the tables with the kernel, in slices; done hears the result. One at a time: a further call
    /// hears the same result.
    /// @throws std::system_error when the kernel refuses a socket.
    void verify(VerifyDone done);
    /// The same at once, for callers without a loop. May take seconds with many routes.
    VerifyResult verifyNow();

  private:
    bool drain(std::size_t datagrams);
    void settleEvents();
    std::size_t stepVerify();
    void setTimer();

    KernelConfig config_;
    KernelSink& sink_;
    Subscription subscription_;
    Fd timer_;
    MfcMirror mirror_;
    QuerySocket query_;
    bool firstLook_ = true; // not every VRF has been dumped yet
    std::unique_ptr<MfcVerify> verify_;
    unsigned verifyRounds_ = 0;
    std::vector<VerifyDone> verifyDone_;
    MfcMirror::Clock::time_point timerAt_{};
};

} // namespace Agent::Kernel
