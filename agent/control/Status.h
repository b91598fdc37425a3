// What `status` tells about the stores and the plug-in: toggles, ready flags, how much every collection holds, what
// tables refused. Each writes the value of one member of the result.
#pragma once

#include "agent/host/Stores.h"
#include "text/Writer.h"

namespace Agent {

/// The toggles that were asked for, with their origin.
void writeToggles(Text::Writer& writer);
/// The plug-in's ready flags.
void writeReady(Text::Writer& writer, const Stores& stores);
/// Members of every collection: by path, those of one shape summed up under the shape.
void writeSizes(Text::Writer& writer, const Stores& stores);
/// Rows that full tables refused and reads that found damage, over all tables.
void writeTables(Text::Writer& writer, const Stores& stores);

} // namespace Agent
