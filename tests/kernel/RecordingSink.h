// Tables in memory, as the mirror of the kernel sees the agent's: it keeps what it is told and holds every
// call against the contract of TableSink, so that a test fails at the call that breaks it.
#pragma once

#include "agent/kernel/TableSink.h"

#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Agent::Kernel::Test {

class RecordingSink : public TableSink {
  public:
    using Row = std::map<int, std::string>; // ifindex -> name as the row's reader sees it
    struct VrfRows {
        VrfConfig config;
        bool multicast = false;
        std::map<MfcKey, Row> rows[2];
    };

    /// @param rowsHoldNames whether rows hold the interfaces' names, or indexes into one list of names.
    explicit RecordingSink(bool rowsHoldNames = false)
        : rowsHoldNames_(rowsHoldNames) {}

    WhyNot putVrf(const VrfConfig& vrf, bool multicastEnabled) override;
    WhyNot removeVrf(const VrfConfig& vrf) override;
    WhyNot putRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key,
                    std::span<const Oif> oifs) override;
    void removeRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key) override;
    bool renameInterface(int ifindex, std::string_view name) override;
    void forgetInterface(int ifindex) override;
    std::optional<bool> multicastEnabled(const VrfConfig& vrf) const override;
    std::unique_ptr<RowWalk> rows(const VrfConfig& vrf, RouteType type) const override;
    bool row(const VrfConfig& vrf, RouteType type, const RouteKey& key,
             const RowVisitor& visit) const override;

    /// "e2 e3", sorted by index; "none" for a row without interfaces, "absent" for no row.
    std::string row(const std::string& vrf, const MfcKey& key, RouteType type = RouteType::sparse) const;
    std::size_t rowCount(const std::string& vrf) const;

    /// Refuses what they return a reason for.
    std::function<std::string(const VrfConfig&, bool)> refuseVrf;
    std::function<std::string(const MfcKey&)> refuseRoute;
    /// Hears each call, as text.
    std::function<void(const std::string&)> heard;

    std::map<std::string, VrfRows> vrfs;
    std::map<int, std::string> names; // by ifindex, of the interfaces that rows were given with
    std::size_t calls = 0;

  private:
    class Walk;
    const std::map<MfcKey, Row>& tableOf(const std::string& vrf, RouteType type) const;
    void note(const std::string& call);
    VrfRows* entered(const VrfConfig& vrf, const char* call);

    bool rowsHoldNames_;
    std::set<std::pair<std::string, MfcKey>> renamed_; // rows that may be told again without a difference
};

} // namespace Agent::Kernel::Test
