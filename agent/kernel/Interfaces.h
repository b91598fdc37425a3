// The network interfaces by ifindex: their names, which of them are never reported as OIFs, and what the sink
// has to hear of them.
//
// A dump of links is merged like one of routes: what an event told during it wins, and what it didn't have is
// gone, if nothing went meanwhile. Owned and changed by MfcMirror, which tells the sink and the VRFs what
// follows. Names stay in place while their interface exists; version() advances when one may have changed, so
// that lists of names can be kept (OifSets does).
#pragma once

#include "agent/kernel/MfcMessage.h"

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace Agent::Kernel {

struct Interface {
    std::string name;
    bool internal = false;     // never an OIF to report; stays so while the interface exists
    bool told = false;         // the sink was offered a route with it
    std::uint32_t seen = 0;    // the dump that had it last
    std::uint32_t touched = 0; // the dump during which an event told of it
};

class Interfaces {
  public:
    /// Null where there is none.
    Interface* find(int ifindex);
    const Interface* find(int ifindex) const { return const_cast<Interfaces*>(this)->find(ifindex); }
    bool isInternal(int ifindex) const;
    /// "#7" for an interface that isn't known.
    std::string nameOf(int ifindex) const;
    /// Never 0.
    std::uint64_t version() const { return version_; }

    /// What a message about an interface changed for routes that have it.
    struct Change {
        bool toInternal = false; // it must leave their OIFs
        bool toKnown = false;    // they were told without it, as it had no name
    };
    Change eventIs(const Link& link);
    Change answerIs(const Link& link);
    void gone(int ifindex);
    /// Routes are told without the interface, as it isn't known.
    void missing(int ifindex) { missing_.insert(ifindex); }

    void dumpBegins();
    void disturbDump() { disturbed_ = true; }
    /// @return whether the dump has to be repeated; if not, absent() are gone.
    bool dumpDisturbed() const { return disturbed_; }
    std::vector<int> absent() const;

    /// Interfaces that the sink knows by another name, and those that it need not know any more.
    std::set<int>& renamed() { return renamed_; }
    const std::set<int>& renamed() const { return renamed_; }
    std::set<int>& goneAndTold() { return goneAndTold_; }

  private:
    Change is(const Link& link);

    std::unordered_map<int, Interface> map_;
    std::uint64_t version_ = 1;
    std::uint32_t dump_ = 0; // the number of the latest
    bool disturbed_ = false;
    std::set<int> missing_;
    std::set<int> renamed_;
    std::set<int> goneAndTold_;
};

} // namespace Agent::Kernel
