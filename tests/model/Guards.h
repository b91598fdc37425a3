// The rules by which an agent keeps a client's slip from stopping the plug-in, applied to the model's
// operations: only what they let through is drawn, or kept when a failing run is shortened.
#pragma once

#include "tests/model/NaiveModel.h"
#include "tests/model/Operation.h"

namespace Model {

/// Whether an agent over the model's stores would let the operation through, and whether the operation has
/// anything to work on (a table that is there, a route to change without being told, ...).
bool allowed(const Operation& operation, const NaiveModel& model);

} // namespace Model
