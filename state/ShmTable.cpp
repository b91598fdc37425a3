#include "state/ShmTable.h"

#include "state/Errors.h"
#include "state/Mount.h"
#include "state/Trace.h"

TRACE_FACILITY("State");

namespace State {

void ShmTable::sizingIs(const TableMount& mount) {
    for (const CollectionSizing& sizing : mount.collections)
        if (sizing.name == sizedCollection_)
            capacity_ = sizing.capacity;
}

void ShmTable::doCorruptionDetected(const std::string& message) const {
    ++corruptions_;
    lastCorruption_ = message;
    TRACE(0, "doCorruptionDetected", " table=", tableName_, " ", message);
}

void ShmTable::corrupted() const {
    throw CorruptionError("table " + tableName_ + ": a row is damaged");
}

bool ShmTable::refuse() {
    ++refused_;
    TRACE(0, "refuse", " table=", tableName_, " is full, capacity=", capacity_, " refused=", refused_);
    return false;
}

} // namespace State
