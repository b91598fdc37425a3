// The mirror of the kernel's multicast forwarding: follows events, asks for dumps where events can't tell, and
// keeps the agent's tables equal to what it knows.
//
// It has no socket and no clock, so that a test can be its kernel. Who has them gives it all events that wait, lets
// it publish(), and carries out its queries one after the other:
//
//     query = nextQuery(now); takeAnswer(message)...; endAnswer(error, interrupted, now)
//
// What events tell and what they don't:
// - Routes: each change but those below has an event; unresolved entries stand beside routes and are skipped.
// - A lost event (overrun): everything is read again, interfaces, VIFs, tables.
// - An interface that goes leaves routes and VIFs silently; known routes say which. A rename is one row.
// - A VIF that comes or goes is told only as a number per interface: the VIF tables are read, and those tables
//   dumped where an interface came.
//
// NetlinkSource owns one, each Verification another; the sink outlives them. Read next: MirroredVrf.h.
#pragma once

#include "agent/kernel/MirroredVrf.h"

#include <functional>
#include <memory>

namespace Agent::Kernel {

/// A question to the kernel.
struct KernelQuery {
    enum class Kind : std::uint8_t {
        links,  // all interfaces
        vifs,   // the VIFs of all tables
        routes, // all routes of a table
        route,  // one route of a table
    };
    Kind kind = Kind::links;
    std::uint32_t table = 0;
    MfcKey key = {};
};

/// A query under way, and what its answer has brought that is learnt at the end.
struct AskedQuery {
    KernelQuery query;
    std::set<int> added; // interfaces that had become VIFs by then
    std::map<std::uint32_t, std::vector<Vif>> vifs;
    std::optional<MfcRoute> route;
    bool malformed = false;
};

/// Gives the mirrors events that wait, for as long as there is time.
/// @param anew those that wait now; otherwise it goes on with those of the last call.
/// @return whether all of them have been given.
using SettleEvents = std::function<bool(bool anew)>;

class Mirror {
  public:
    using Clock = std::chrono::steady_clock;
    using VrfList = std::vector<std::unique_ptr<MirroredVrf>>;

    explicit Mirror(TableSink& sink)
        : shared_{.sink = sink} {}
    Mirror(const Mirror&) = delete;
    Mirror& operator=(const Mirror&) = delete;

    /// Puts a configuration in force; VRFs that it doesn't change are left alone.
    void reconfigure(const KernelConfig& config);

    /// Takes one message of the subscription.
    void takeEvent(const KernelMessage& message);
    /// The kernel dropped events, or the reader did.
    void overrun();

    /// What to ask now, if anything. To be answered before the next question.
    std::optional<KernelQuery> nextQuery(Clock::time_point now);
    /// Takes one message of the answer.
    void takeAnswer(const KernelMessage& message);
    /// The answer is complete. At the end of a dump of routes, all events from before that end have been given.
    /// @param error errno; 0 where it went well.
    void endAnswer(int error, bool interrupted, Clock::time_point now);
    /// When nextQuery() has a question, if nothing happens before; perhaps by now.
    std::optional<Clock::time_point> queryDueAt() const;
    bool queryDue(Clock::time_point now) const {
        return queryDueAt().value_or(Clock::time_point::max()) <= now;
    }

    /// Tells the sink up to max routes of what differs, with what goes before and after them. @return how many.
    std::size_t publish(std::size_t max);
    bool publishDue() const;
    /// Something changed elsewhere that may have been in the way of what the sink refused.
    void retry() { shared_.retry = true; }

    /// Whether every VRF has had its first dump.
    bool synced() const;
    const Counters& counters() const { return shared_.counters; }
    /// Empty: none yet.
    const std::string& lastError() const { return lastError_; }
    std::chrono::system_clock::time_point lastErrorAt() const { return lastErrorAt_; }
    /// A list of the VRFs' states, with those that leave.
    void vrfStatus(Text::Writer& writer) const;

    /// For a comparison: the configured VRFs, those that leave not among them, and the interfaces.
    const VrfList& vrfs() const { return vrfs_; }
    const Interfaces& interfaces() const { return shared_.interfaces; }

  private:
    bool asks(KernelQuery::Kind kind) const { return asked_ && asked_->query.kind == kind; }
    void routeEvent(const MfcRoute& route, bool gone);
    void learnLink(const Link& link, bool isFromDump);
    void linkGone(int ifindex);
    MirroredVrf* vrfOf(std::uint32_t table) const;
    bool isMirrored(const MirroredVrf* vrf, const MfcRoute& route);
    void failQuery(AskedQuery& asked, int error, Clock::time_point now);
    void noteMalformed(const char* what, const KernelMessage& message);
    void noteError(std::string text);
    void publishRenames();
    void publishGoneInterfaces();

    MirrorShared shared_;
    VrfList vrfs_;
    VrfList leaving_;

    bool linksWanted_ = true;
    bool vifsWanted_ = true;
    std::set<int> added_; // interfaces that became VIFs since the VIFs were last asked for
    Clock::time_point notBefore_{};

    std::optional<AskedQuery> asked_;

    std::string lastError_;
    std::chrono::system_clock::time_point lastErrorAt_{};
};

} // namespace Agent::Kernel
