// What the agent needs of the grammar of scenario files and kestrelctl lines: one line run as a command,
// lines of state turned into changes, whole files preloaded and played.
//
// The control service, preload and play work through this interface, so that none of them knows a word of
// the grammar. The application owns the one implementation.
#pragma once

#include "agent/Operations.h"

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

/// A list of changes that lines stand for.
struct LineChanges {
    std::vector<Change> changes;
    std::vector<std::size_t> lines; // beside changes: the number of the line, from 1, that each comes from
};

class Grammar {
  public:
    virtual ~Grammar() = default;

    /// Runs one line as a command.
    /// @param raw whether its changes pass the guards.
    /// @return the command's result object.
    /// @throws RpcError, OperationError
    virtual nlohmann::json run(std::string_view line, bool raw) = 0;

    /// A result of run as a person reads it: lines, or an aligned table, with a newline behind each. The
    /// method `command` sends it beside the result when `text` is asked for.
    virtual std::string text(const nlohmann::json& result) const = 0;

    /// The changes that lines of state commands stand for, each judged by the state as the earlier ones leave
    /// it; comments and blank lines are none.
    /// @throws RpcError whose data has the `line`, for a line that is no state command.
    virtual LineChanges changes(std::span<const std::string> lines, bool raw) = 0;

    /// Puts the state that a file describes into the stores; the plug-in has not been started.
    /// @throws std::runtime_error naming file and line; nothing was put there then.
    virtual void preload(const std::string& file) = 0;

    /// Holds a scenario file against the grammar without running it.
    /// @throws std::runtime_error naming file and line.
    virtual void check(const std::string& file) = 0;

    /// Plays a scenario file. It may take turns of the loop; `done` is called once, with whether every
    /// command was carried out and every expectation held. What failed has been printed on standard error.
    virtual void play(const std::string& file, std::function<void(bool held)> done) = 0;
};

} // namespace Agent
