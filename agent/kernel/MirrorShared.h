// What the VRFs of one mirror share. Owned by MfcMirror.
#pragma once

#include "agent/kernel/Interfaces.h"
#include "agent/kernel/KernelStatus.h"
#include "agent/kernel/OifSets.h"

namespace Agent::Kernel {

struct MirrorShared {
    explicit MirrorShared(KernelSink& tables)
        : sink(tables) {}

    KernelSink& sink;
    OifSets oifSets;
    Interfaces interfaces;
    KernelCounters counters;
    bool retry = false; // something changed that may have been in the way of a refused change
};

} // namespace Agent::Kernel
