// What a change is, and what comes of changes: plain data that everybody exchanges with Operations.h.
#pragma once

#include "agent/host/Services.h"
#include "state/Datum.h"

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Agent {

/// One change: write or remove a value or a member. Without attribute, key and value, `set` sees to it that the
/// table or FIB at the path is there.
struct Change {
    enum class Op { set, del };
    Op op = Op::set;
    std::string path = {};
    std::string attribute = {};
    std::optional<State::Datum> key = {};
    std::optional<State::Datum> value = {};
    bool raw = false; // the guards let it through
};

/// An answer of the plug-in that changed, as it is now. How it is told: language/AnswerText.h.
struct AnswerChange {
    const Service* service = nullptr;
    RequestKey key;
    Answer answer; // none: it went
};

struct ApplyResult {
    std::size_t changed = 0;           // changes that changed something
    std::vector<AnswerChange> answers; // as each is in the end, in order of its first change
};

/// A page of a collection.
struct Page {
    std::vector<std::pair<State::Datum, State::Datum>> members; // key, value (null for a set's)
    std::size_t size = 0;                                       // members of the whole collection
};

} // namespace Agent
