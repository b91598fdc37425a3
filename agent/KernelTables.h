// The agent's route tables as the mirror of the kernel writes them (kernel/KernelSink.h): every write goes
// through Operations, so that the guards bind this source as they bind clients; what they refuse comes back
// as "why".
//
// With the Quill source each interface of the kernel has one index in each table that uses it, so that a
// rename is one row; with the Lumen source routes hold names. KernelMirror.h owns it.
#pragma once

#include "agent/Operations.h"
#include "agent/kernel/KernelSink.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

class KernelTables final : public Kernel::KernelSink {
  public:
    /// @param operations outlives it.
    explicit KernelTables(Operations& operations)
        : operations_(operations) {}

    bool vrf(const Kernel::VrfConfig& vrf, bool multicastEnabled, std::string& why) override;
    bool vrfGone(const Kernel::VrfConfig& vrf, std::string& why) override;
    bool route(const Kernel::VrfConfig& vrf, Kernel::RouteType type, const Kernel::MfcKey& key,
               std::span<const Kernel::Oif> oifs, std::string& why) override;
    void routeGone(const Kernel::VrfConfig& vrf, Kernel::RouteType type, const Kernel::MfcKey& key) override;
    bool interfaceNamed(int ifindex, std::string_view name) override;
    void interfaceGone(int ifindex) override;
    std::optional<bool> multicastEnabled(const Kernel::VrfConfig& vrf) const override;
    void eachRoute(const Kernel::VrfConfig& vrf, Kernel::RouteType type,
                   const RouteVisitor& visit) const override;

  private:
    /// The indexes of one Quill table: by the kernel's interface index, and which are taken.
    struct Indexes {
        std::map<int, std::uint64_t> byIfindex;
        std::vector<bool> taken;
    };

    bool carryOut(std::span<const Change> changes, std::string& why);
    std::string tablePath(const Kernel::VrfConfig& vrf, Kernel::RouteType type) const;
    bool indexesOf(const std::string& path, std::span<const Kernel::Oif> oifs, std::vector<Change>& changes,
                   State::Datum::List& indexes, std::string& why);

    Operations& operations_;
    std::map<std::string, Indexes> indexes_; // by table path
};

} // namespace Agent
