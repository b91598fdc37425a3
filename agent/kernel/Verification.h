// Compares the agent's tables with the kernel, as an operator asks for with `kestrelctl kernel verify`.
//
// A second mirror learns everything anew, from dumps of its own and from the events that also the first one gets; it
// never publishes. Then the tables are held against it, so that a fault of the first mirror shows as well as one of
// the tables.
//
// Kernel and tables go on changing meanwhile. Each comparison of a route is one of both sides as they are at that
// moment, when all that the first mirror knows is in the tables. What differs then is only suspected: the kernel is asked
// for that route by name, and what differs still is told. NetlinkSource makes one for each comparison and drives it.
#pragma once

#include "agent/kernel/Mirror.h"

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
    /// @param atOnce routes of one step.
    Verification(const KernelConfig& config, const Mirror& mirror, TableSink& tables,
                 std::size_t atOnce = 64);

    /// The mirror that learns; it must get every event from now on.
    Mirror& fresh() { return fresh_; }

    /// Compares a few routes of those that are left to compare; to be called while both mirrors have all that they have
    /// asked for, and the first one has published what it knows.
    /// @param settleEvents called until it is done before suspicions are looked at once more.
    /// @return whether the result is there.
    bool step(const SettleEvents& settleEvents);
    const VerifyResult& result() const { return result_; }

    /// Gives back some of what it holds. @return whether all is given back.
    bool dismantle();

  private:
    // One row that may differ.
    struct Spot {
        std::size_t vrf; // of the fresh mirror's
        RouteType type;
        RouteKey key;
        bool operator==(const Spot&) const = default;
        std::uint32_t hash(std::uint32_t seed) const {
            return State::Hasher(seed)
                .mix(vrf)
                .mix(static_cast<std::uint32_t>(type))
                .mix(key.hash(seed))
                .result();
        }
    };
    struct SpotKey {
        const Spot& operator()(const Spot& spot) const { return spot; }
    };
    enum class Stage : std::uint8_t { begin, walk, ask, settle, judge };

    void begin();
    bool walk();
    void ask();
    bool judge();
    MirroredVrf& vrfOf(const Spot& spot) const { return *fresh_.vrfs()[spot.vrf]; }
    const MirroredVrf* knownAs(const VrfConfig& config) const;
    const RouteEntry* entryAt(const Spot& spot) const;
    bool isDoubtful(const Spot& spot) const;
    void suspect(const Spot& spot);
    std::optional<Difference> differenceAt(const Spot& spot) const;
    void judgeVrf(MirroredVrf& vrf);
    std::string namesOf(const RouteEntry& entry) const;
    void differ(Difference difference);

    const Mirror& mirror_;
    TableSink& tables_;
    std::size_t atOnce_;
    Mirror fresh_;
    std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
    Stage stage_ = Stage::begin;
    bool settling_ = false;
    std::uint64_t overruns_ = 0;               // of the fresh mirror, when it asked by name
    std::vector<std::function<bool()>> walks_; // each goes on with one, and says whether there is more of it
    State::Table<Spot, SpotKey> suspects_{State::processHashSeed()};
    std::optional<Spot> judged_; // the last of them
    VerifyResult result_;
};

} // namespace Agent::Kernel
