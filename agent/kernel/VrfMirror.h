// One VRF of the mirror: makes the agent's tables follow its table of the kernel.
//
// The kernel's side, in KernelTable, queues the routes that changed. The configuration says what the VRF is.
// publish() tells the sink the difference, one call a queued route however often it changed, and brings the
// VRF in and out. What the sink refuses stays known here as pending, until retry() or a change of the route.
//
// Owned by MfcMirror. Read next: KernelTable.h.
#pragma once

#include "agent/kernel/KernelTable.h"

#include <cstddef>
#include <map>
#include <optional>
#include <string>

namespace Agent::Kernel {

class VrfMirror {
  public:
    VrfMirror(const VrfConfig& config, MirrorShared& shared)
        : config_(config)
        , shared_(shared)
        , kernel_(shared) {}

    const VrfConfig& config() const { return config_; }
    KernelTable& kernel() { return kernel_; }

    /// Another table keeps the routes that both tables have; another id takes the VRF out and brings it back.
    void configIs(const VrfConfig& config);
    /// Takes the routes out, then the VRF; configIs() calls it back.
    void leave();
    /// Whether nothing is left of a VRF that leaves.
    bool left() const { return leaving_ && !entered_; }

    /// Tells the sink up to max routes of what differs. @return how many.
    std::size_t publish(std::size_t max);
    bool hasWork() const;
    /// Tries again what was refused.
    void retry();
    /// Tells the routes that have the interface again, as it has another name.
    void renamed(int ifindex);

    /// The type that a route of the kernel gets.
    RouteType typeOf(const MfcEntry& entry) const;
    /// Why the route isn't in the tables as it should be; empty where nothing was refused.
    std::string whyPending(const MfcKey& key) const;
    VrfState state() const;

  private:
    bool mustHide() const;
    bool enableWanted() const { return kernel_.synced() ? !kernel_.vifs().empty() : enabled_; }
    void enter();
    void withdraw();
    void switchMulticast();
    bool accepted(bool yes, const std::string& why);
    std::size_t publishRoutes(std::size_t max);
    void settle(MfcEntry& entry);
    void show(MfcEntry& entry);
    void hide(MfcEntry& entry);

    VrfConfig config_;
    MirrorShared& shared_;
    KernelTable kernel_;
    std::optional<VrfConfig> entered_; // as the sink has it
    std::string whyVrf_;               // why the VRF itself waits; empty: it doesn't
    std::map<MfcKey, std::string> refused_;
    bool enabled_ = false; // as the sink has it
    bool leaving_ = false;
    bool hiding_ = false; // routes are on their way out, whatever the kernel has
    bool rowsFreed_ = false;
};

} // namespace Agent::Kernel
