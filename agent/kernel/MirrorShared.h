// What the VRFs of one mirror share, and what it counts. Mirror owns it; its MirroredVrfs and their TableLearners
// change it. `kestrelctl kernel` shows the counters.
#pragma once

#include "agent/kernel/Interfaces.h"
#include "agent/kernel/TableSink.h"

#include <cstdint>

namespace Agent::Kernel {

/// All count from the start of the agent.
struct Counters {
    std::uint64_t events = 0;            // messages of the subscription
    std::uint64_t coalesced = 0;         // route events overtaken by a later one before the tables were told
    std::uint64_t unchanged = 0;         // route events that said what was known already
    std::uint64_t changes = 0;           // rows added, changed and removed in the tables
    std::uint64_t refused = 0;           // changes that the tables refused, each attempt
    std::uint64_t overruns = 0;          // times the kernel dropped events, as they were read too slowly
    std::uint64_t resyncs = 0;           // dumps of a table
    std::uint64_t disturbed = 0;         // of these, the ones that a change during the dump made doubtful
    std::uint64_t lookups = 0;           // single routes asked for, as a dump didn't have them
    std::uint64_t malformed = 0;         // messages that could not be read
    std::uint64_t skippedUnresolved = 0; // messages about packets that wait for a route
    std::uint64_t skippedGroupZero = 0;  // about (*,*) and (S,*) entries
    std::uint64_t skippedOtherTable = 0; // about tables that no VRF mirrors
};

struct MirrorShared {
    TableSink& sink;
    Interfaces interfaces = {};
    Counters counters = {};
    bool retry = false; // something changed that may have been in the way of a refused change
};

} // namespace Agent::Kernel
