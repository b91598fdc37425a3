// What operators see of the kernel source: its counters, its VRFs, what is pending and why.
//
// Plain structs, made afresh for each look; `kestrelctl show kernel` prints them. MfcMirror and MfcSource
// fill them in.
#pragma once

#include "agent/kernel/KernelConfig.h"
#include "agent/kernel/MfcMessage.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Agent::Kernel {

/// All count from the start of the agent.
struct KernelCounters {
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

struct PendingChange {
    std::string what; // "route static (10.0.0.1, 239.1.1.1)", "VRF"
    std::string why;  // the table's reason
};

struct VrfState {
    VrfConfig config;
    bool entered = false;          // the tables have the VRF
    bool multicastEnabled = false; // as the tables have it
    bool synced = false;           // a first dump is in
    bool resyncWanted = false;     // a dump is due or waits for the churn to end
    bool leaving = false;          // no longer configured, and not gone yet
    std::size_t routes = 0;        // in the kernel
    std::size_t rows = 0;          // in the tables
    std::vector<Vif> vifs;
    std::vector<std::string> vifNames; // beside vifs
    std::size_t pendingCount = 0;
    std::vector<PendingChange> pending; // the first ones
};

struct KernelStatus {
    KernelCounters counters;
    std::vector<VrfState> vrfs;
    std::string lastError; // empty: none yet
    std::chrono::system_clock::time_point lastErrorAt{};
    std::size_t receiveBuffer = 0; // bytes the kernel granted
};

} // namespace Agent::Kernel
