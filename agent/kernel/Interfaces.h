// The network interfaces by ifindex: their names, which of them are never reported as OIFs, and what the sink has
// to hear of them.
//
// A dump of links is merged like one of routes: what an event told during it wins, and what it didn't have is
// gone, if nothing went meanwhile. Mirror owns it, brings the messages, and tells the sink and the VRFs what
// follows; OifSets marks the interfaces that the sink is told of, or would be if they had a name. Names stay in
// place while their interface exists; version() advances when one may have changed, so that lists of names can be
// kept.
#pragma once

#include "agent/kernel/KernelMessage.h"

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
    Change learnFromEvent(const Link& link);
    Change learnFromDump(const Link& link);
    void remove(int ifindex);
    /// Routes are told without the interface, as it isn't known.
    void noteMissing(int ifindex) { missing_.insert(ifindex); }

    void beginDump();
    void disturbDump() { disturbed_ = true; }
    /// Whether the dump has to be repeated; if not, unseen() are gone.
    bool dumpDisturbed() const { return disturbed_; }
    std::vector<int> unseen() const;

    /// Interfaces that the sink knows by another name, and those that it need not know any more; who tells it
    /// takes them out.
    std::set<int>& toRename() { return toRename_; }
    const std::set<int>& toRename() const { return toRename_; }
    std::set<int>& toForget() { return toForget_; }

  private:
    Change learn(const Link& link);

    std::unordered_map<int, Interface> map_;
    std::uint64_t version_ = 1;
    std::uint32_t dump_ = 0; // the number of the latest
    bool disturbed_ = false;
    std::set<int> missing_;
    std::set<int> toRename_;
    std::set<int> toForget_;
};

} // namespace Agent::Kernel
