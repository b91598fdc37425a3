// What the VRFs of one mirror share. Mirror owns it.
#pragma once

#include "agent/kernel/Counters.h"
#include "agent/kernel/Interfaces.h"
#include "agent/kernel/OifSets.h"
#include "agent/kernel/TableSink.h"

namespace Agent::Kernel {

struct MirrorShared {
    explicit MirrorShared(TableSink& tables)
        : sink(tables) {}

    TableSink& sink;
    OifSets oifSets;
    Interfaces interfaces;
    Counters counters;
    bool retry = false; // something changed that may have been in the way of a refused change
};

} // namespace Agent::Kernel
