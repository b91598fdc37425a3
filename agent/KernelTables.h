// The agent's route tables as the mirror of the kernel writes them (kernel/KernelSink.h): VRFs, tables and
// interfaces by way of Operations, so that the guards bind this source as they bind clients; what they refuse
// comes back as "why". Routes, of which there are a hundred thousand, are written directly: IPv4 keys of
// tables that Operations made, with indexes given out here, have nothing that a guard could refuse.
//
// With the Quill source each interface of the kernel has one index in each table that uses it, so that a
// rename is one row; with the Lumen source routes hold names. KernelMirror.h owns it.
#pragma once

#include "agent/Operations.h"
#include "agent/kernel/KernelSink.h"
#include "records/LumenFib.h"
#include "records/QuillFib.h"

#include <array>
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
    using Fib = Lumen::Multicast::Fib::Status;
    using QuillTable = Quill::Multicast::Fib::Status;
    using RouteKey = Routing::Multicast::Fib::IpGenRouteKey;

    /// What is known of one table: where it is, and in a Quill table the index of each of the kernel's
    /// interfaces and which indexes are taken.
    struct Table {
        std::string path = {};
        std::string fibsPath = {};                   // with the Lumen source, of what holds the FIB
        Lumen::Multicast::Fib::MfibVrfName vrf = {}; // and its key there
        std::map<int, std::uint16_t> byIfindex = {};
        std::vector<bool> taken = {};
    };

    bool carryOut(std::span<const Change> changes, std::string& why);
    Table& tableOf(const Kernel::VrfConfig& vrf, Kernel::RouteType type);
    Table tableAt(const Kernel::VrfConfig& vrf, Kernel::RouteType type) const;
    State::Handle<Fib> fib(const Table& table) const;
    State::Handle<QuillTable> quillTable(const Table& table) const;
    bool lumenRoute(Fib& fib, const RouteKey& key, std::span<const Kernel::Oif> oifs);
    std::uint16_t indexOf(Table& table, const Kernel::Oif& oif);

    Operations& operations_;
    std::map<std::string, std::array<Table, 2>, std::less<>> tables_; // by VRF name and route type
};

} // namespace Agent
