// One VRF of the mirror: makes the agent's tables follow its table of the kernel.
//
// TableLearner queues the routes that changed in the kernel, the configuration says what the VRF is. publish() tells
// the sink the difference, one call a queued route however often it changed, and brings the VRF in and out. What the
// sink refuses stays pending here until retry() or a change of the route. Mirror owns it. Read next: TableLearner.h.
#pragma once

#include "agent/kernel/TableLearner.h"
#include "text/Writer.h"

#include <map>

namespace Agent::Kernel {

class MirroredVrf {
  public:
    MirroredVrf(const VrfConfig& config, MirrorShared& shared)
        : config_(config)
        , shared_(shared)
        , kernel_(shared) {}

    const VrfConfig& config() const { return config_; }
    TableLearner& kernel() { return kernel_; }
    const TableLearner& kernel() const { return kernel_; }

    /// Another table keeps the routes that both tables have; another id takes the VRF out and brings it back.
    void reconfigure(const VrfConfig& config);
    /// Takes the routes out, then the VRF; reconfigure() calls it back.
    void leave() {
        leaving_ = true;
        whyVrf_.clear();
        kernel_.queueAll();
    }
    /// Whether nothing is left of a VRF that leaves.
    bool left() const { return leaving_ && !entered_; }

    /// Tells the sink up to max routes of what differs. @return how many.
    std::size_t publish(std::size_t max);
    bool hasWork() const;
    /// Tries again what was refused.
    void retry();
    /// Tells the routes that have the interface again, as it has another name.
    void repeatRoutesWith(int ifindex);

    bool entered() const { return entered_.has_value(); }
    /// The type that a route of the kernel gets.
    RouteType typeOf(const RouteEntry& entry) const;
    /// Why the route, or the VRF, isn't in the tables as it should be; empty where nothing was refused.
    WhyNot whyPending(const MfcKey& key) const;
    std::size_t pendingCount() const { return refused_.size() + (whyVrf_.empty() ? 0 : 1); }
    /// A record of the state, with the first of the pending changes.
    void status(Text::Writer& writer) const;

  private:
    bool mustWithdraw() const;
    bool enableWanted() const { return kernel_.synced() ? !kernel_.vifs().empty() : enabled_; }
    void remove();
    bool accepted(WhyNot why);
    void settle(RouteEntry& entry);
    void install(RouteEntry& entry);
    void withdraw(RouteEntry& entry);

    VrfConfig config_;
    MirrorShared& shared_;
    TableLearner kernel_;
    std::optional<VrfConfig> entered_; // as the sink has it
    WhyNot whyVrf_;                    // why the VRF itself waits
    std::map<MfcKey, WhyNot> refused_;
    std::size_t rows_ = 0; // of the sink
    bool enabled_ = false; // as the sink has it
    bool leaving_ = false;
    bool rowsFreed_ = false;
};

} // namespace Agent::Kernel
