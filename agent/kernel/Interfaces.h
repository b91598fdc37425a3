// The network interfaces by ifindex: their names, which of them are never reported as OIFs, and what the sink has
// to hear of them.
//
// A dump of links is merged like one of routes: what an event told during it wins, and what it didn't have is gone,
// if nothing went meanwhile. Mirror changes it and tells the sink and the VRFs what follows.
#pragma once

#include "agent/host/RouteSource.h"
#include "agent/kernel/KernelMessage.h"

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace Agent::Kernel {

class Interfaces {
  public:
    bool isInternal(int ifindex) const;
    /// "#7" for an interface that isn't known.
    std::string nameOf(int ifindex) const;
    /// What the sink is told of a route's OIFs: those that are known, each marked as told.
    std::vector<Oif> named(const std::vector<int>& oifs);

    /// @return whether routes that have the interface look otherwise now: they were told without it, as it had no
    /// name, or must be, as it turned out to be internal.
    bool learn(const Link& link, bool isFromDump);
    void remove(int ifindex);

    void beginDump() { ++dump_; }
    /// Those that the dump didn't have: gone, if nothing else went meanwhile.
    std::vector<int> unseen() const;

    /// What the sink knows by another name, and what it need not know any more; who tells it takes them out.
    std::set<int>& toRename() { return toRename_; }
    const std::set<int>& toRename() const { return toRename_; }
    std::set<int>& toForget() { return toForget_; }

  private:
    struct Interface {
        std::string name;
        bool internal = false;     // never an OIF to report; stays so while the interface exists
        bool told = false;         // the sink was offered a route with it
        std::uint32_t seen = 0;    // the dump that had it last
        std::uint32_t touched = 0; // the dump during which an event told of it
    };

    std::unordered_map<int, Interface> map_;
    std::uint32_t dump_ = 0; // the number of the latest
    std::set<int> toRename_;
    std::set<int> toForget_;
};

} // namespace Agent::Kernel
