// Compares the agent's tables with the kernel, as an operator asks for with `kestrelctl kernel verify`.
//
// A second mirror learns everything anew, from dumps of its own and from the events that also the first one gets; it
// never publishes. Then the tables are held against it, so that a fault of the first mirror shows as well as one of
// the tables. NetlinkSource makes one for each comparison and drives it in slices.
#pragma once

#include "agent/kernel/NetlinkSocket.h"

namespace Agent::Kernel {

struct Difference {
    std::string vrf = {};
    std::string what = {};   // "VRF missing", "multicast", "missing", "extra", "different"
    std::string route = {};  // "static (10.0.0.1, 239.1.1.1)"; empty for the VRF itself
    std::string kernel = {}; // what the kernel has: interface names, or a state
    std::string tables = {}; // what the tables have
    WhyNot pending = {};     // why the tables refused it, where they did
};

struct VerifyResult {
    /// Whether the kernel stood still for long enough that nothing can have been missed.
    bool complete = false;
    std::size_t routes = 0; // in the kernel
    std::size_t rows = 0;   // in the tables
    std::size_t differenceCount = 0;
    std::vector<Difference> differences; // the first ones
    std::chrono::steady_clock::duration took{};

    void write(Text::Writer& writer) const;
};

class Verification {
  public:
    /// @throws std::system_error
    Verification(const KernelConfig& config, const Mirror& mirror, TableSink& tables);

    /// The mirror that learns; it must get every event from now on.
    Mirror& fresh() { return fresh_; }

    /// Learns the next part of what the kernel has. @return how many messages were read; 0: there is no more.
    std::size_t learn(const std::function<void()>& settleEvents) { return query_.step(fresh_, settleEvents); }

    /// Compares, once both mirrors have all events and the first one has published what it knows.
    /// @return false when single routes must be asked for first: learn() and compare again.
    bool compare();

    const VerifyResult& result() const { return result_; }

  private:
    std::vector<MfcKey> compareVrf(MirroredVrf& vrf, const MirroredVrf* known);
    std::string namesOf(const RouteEntry& entry) const;
    void differ(Difference difference);

    const Mirror& mirror_;
    TableSink& tables_;
    Mirror fresh_;
    QuerySocket query_;
    std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
    bool asked_ = false;
    VerifyResult result_;
};

} // namespace Agent::Kernel
