// A kernel in memory, as far as multicast forwarding shows: tables with VIFs and routes, links, a
// subscription that overruns, and dumps that are not atomic. It behaves as Linux was measured to, in what it
// tells and what it doesn't.
//
// A reader (FakeReader) does with it what NetlinkSource does with the real one, one small step at a time, so that
// a test can let anything happen between two steps.
#pragma once

#include "agent/kernel/Mirror.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Agent::Kernel::Test {

class FakeKernel {
  public:
    static constexpr int maxVifs = 8;
    static constexpr std::uint8_t byDaemon = 17;
    static constexpr std::uint8_t byNetlink = 4;

    struct Entry {
        MfcKey key;
        int parent = 0;            // VIF
        std::uint32_t outputs = 0; // a bit a VIF; kept when the VIF goes
        std::uint8_t protocol = byDaemon;
    };
    struct Table {
        std::array<int, maxVifs> vifs{}; // ifindex, 0 is none
        std::array<bool, maxVifs> isRegister{};
        std::vector<Entry> routes;
        std::vector<MfcKey> unresolved;
    };

    void linkIs(int ifindex, const std::string& name, bool internal = false);
    void linkDel(int ifindex);
    void vifIs(std::uint32_t table, int vif, int ifindex, bool isRegister = false);
    void vifDel(std::uint32_t table, int vif);
    /// Adds the route, or changes the one of its key, whatever its IIF; as a proxy entry, only one of the
    /// same IIF.
    void routeIs(std::uint32_t table, const Entry& entry, bool proxy = false);
    void routeDel(std::uint32_t table, std::size_t position);
    void routeDel(std::uint32_t table, const MfcKey& key);
    void unresolvedIs(std::uint32_t table, const MfcKey& key);
    void unresolvedExpire(std::uint32_t table);
    /// The daemon leaves: VIFs first, then routes.
    void daemonStop(std::uint32_t table);

    MfcRoute routeOf(std::uint32_t table, const Entry& entry) const;
    /// Whether no event waits, or was lost unseen.
    bool isQuiet() const { return events_.empty() && !lost_; }
    void lose() { lost_ = congested_ = true; }

    std::map<int, Link> links;
    std::map<std::uint32_t, Table> tables;
    std::size_t capacity = 1'000'000; // events that the subscription holds

  private:
    friend class FakeReader;
    KernelMessage& tell(MessageKind kind);
    void tellRoute(MessageKind kind, std::uint32_t table, const Entry& entry);
    void tellForwarding(int ifindex);

    std::deque<KernelMessage> events_;
    bool congested_ = false; // events are lost until none waits
    bool lost_ = false;      // the reader hasn't been told yet
    KernelMessage dropped_;
};

class FakeReader {
  public:
    FakeReader(FakeKernel& kernel, Mirror& mirror)
        : kernel_(kernel)
        , mirror_(mirror) {}

    /// Gives the mirror up to max events. @return whether none waits.
    bool drain(std::size_t max = ~std::size_t{0});
    /// Asks a query, or reads up to chunk entries of an answer. The answer to a dump of routes is always read
    /// one part ahead, as the kernel does. @return false when there was nothing to do.
    bool step(std::size_t chunk = 4);
    /// Lets the mirror finish, time passing where it waits.
    void settle();

    Mirror::Clock::time_point now{};
    Mirror* other = nullptr; // gets the events too, where there is one
    std::vector<KernelQuery> asked;

  private:
    void readAhead(std::size_t chunk);
    void finish();
    template <class Tell>
    void toBoth(Tell tell) {
        for (Mirror* mirror : {&mirror_, other})
            if (mirror)
                tell(*mirror);
    }

    FakeKernel& kernel_;
    Mirror& mirror_;
    std::optional<KernelQuery> query_;
    std::size_t position_ = 0;
    std::vector<KernelMessage> ahead_;
    bool atEnd_ = false;
    int error_ = 0;
};

} // namespace Agent::Kernel::Test
