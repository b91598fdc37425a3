// One change of the agent's stores, as plain data: what lines, methods and sources of routes make, and what
// changes/Operations.h judges and carries out.
#pragma once

#include "agent/host/Refusal.h"
#include "state/Datum.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Agent {

/// Writes or removes a value or a member. Without attribute, key and value, `set` sees to it that the table or FIB
/// at the path is there, and `del` that it is not.
struct Change {
    enum class Op : std::uint8_t { set, del };
    Op op = Op::set;
    std::string path = {};
    std::string attribute = {};
    std::optional<State::Datum> key = {};
    std::optional<State::Datum> value = {};
    bool raw = false;     // the guards let it through
    std::size_t line = 0; // that it comes from, in its list of lines, from 1; 0: from none
};

/// A key or value as readers take it: null where there is none.
template <class T>
const T* pointerTo(const std::optional<T>& value) {
    return value ? &*value : nullptr;
}

/// Refuses a change as a guard does.
/// @param rule what is not allowed. @param wayOut what to do instead; `raw` is added.
[[noreturn]] inline void refuseByGuard(const Change& change, std::string_view field, std::string_view rule,
                                       std::string_view wayOut) {
    throw Refusal(RefusalKind::guard,
                  std::string(rule) + "; " + std::string(wayOut) + " (raw lets it through)",
                  {.path = change.path, .attribute = change.attribute, .field = std::string(field)});
}

} // namespace Agent
