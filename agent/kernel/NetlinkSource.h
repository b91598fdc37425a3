// The Linux kernel as the source of the agent's multicast routes: owns the sockets, and turns their events and
// answers into calls of the sink by way of the mirror.
//
// It knows no event loop: it names a descriptor to watch, is told when that is readable, and says whether it has work
// for slices in between, or when it will. The events of one wake-up are all read before the sink hears of any, so that
// it hears once of a route that changed often. A large dump is worked off in slices, others of the loop being served
// between them. KernelSource owns it; the sink outlives it. Read next: Mirror.h.
#pragma once

#include "agent/kernel/NetlinkSocket.h"
#include "agent/kernel/Verification.h"

namespace Agent::Kernel {

class NetlinkSource {
  public:
    using VerifyDone = std::function<void(const VerifyResult&)>;

    /// How long the others of the loop wait for a call, about.
    static constexpr std::chrono::microseconds sliceTime{500};
    /// The kernel counts an event as some 800 bytes: this holds 10,000 of them.
    static constexpr std::size_t defaultReceiveBuffer = 8UL * 1024 * 1024;

    /// Subscribes; everything else is done by the calls below.
    /// @throws std::system_error when the kernel refuses a socket.
    NetlinkSource(const KernelConfig& config, TableSink& sink,
                  std::size_t receiveBuffer = defaultReceiveBuffer);

    /// To be watched for reading as long as the source lives; it stays the source's.
    int fd() const { return events_.fd(); }
    void onReadable();

    /// Whether the loop must not sleep, as doSlice() has something to do.
    bool hasWork() const;
    /// When it will have, if nothing happens before; nothing: it waits for no time.
    std::optional<Mirror::Clock::time_point> waitsUntil() const { return mirror_.queryDueAt(); }
    /// Does some work of what there is: a few routes at least, and on until the time is up.
    void doSlice(Mirror::Clock::duration time = sliceTime);

    /// Puts another configuration in force; what it doesn't change stays as it is.
    void reconfigure(const KernelConfig& config);
    /// Tries again what the sink refused; to be called when something else has changed the tables.
    void retry() { mirror_.retry(); }

    /// Whether the tables have had a first full look at the kernel, with nothing of it left to tell.
    bool synced() const { return mirror_.synced() && !mirror_.publishDue(); }
    const Mirror& mirror() const { return mirror_; }
    /// Bytes that the kernel granted.
    std::size_t receiveBuffer() const { return events_.bufferBytes(); }

    /// Compares the tables with the kernel, in slices; done hears the result. A call meanwhile hears the same one.
    /// @throws std::system_error when the kernel refuses a socket.
    void verify(VerifyDone done);

  private:
    // A comparison, with the questions of its mirror.
    struct Comparison {
        Comparison(const KernelConfig& config, const Mirror& mirror, TableSink& sink)
            : verification(config, mirror, sink) {}

        Verification verification;
        QuerySocket query = {};
    };

    void beginSlice(Mirror::Clock::duration time) { sliceEnd_ = Mirror::Clock::now() + time; }
    bool sliceIsOver() const { return Mirror::Clock::now() >= sliceEnd_; }
    bool step();
    bool drain(std::size_t& datagrams);
    std::unique_ptr<Comparison> newComparison() const;
    void stepComparison();

    const SettleEvents settleEvents_;
    KernelConfig config_;
    TableSink& sink_;
    NetlinkSocket events_;
    KernelMessage event_;
    Mirror mirror_;
    QuerySocket query_;
    Mirror::Clock::time_point sliceEnd_{};
    std::size_t unsettled_ = 0; // datagrams that may still wait of those that waited at some moment
    bool congested_ = false;    // the kernel withholds events until none waits
    bool firstLook_ = true;     // not every VRF has been dumped yet
    std::unique_ptr<Comparison> comparison_;
    std::unique_ptr<Comparison> finished_; // on its way out
    std::vector<VerifyDone> verifyDone_;
};

} // namespace Agent::Kernel
