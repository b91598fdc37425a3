// Functions run in forked children of the agent, on a copy of everything that it has: what each returns, or how it
// came to its end. The agent goes on meanwhile; of its work, only the fork itself is a client's to wait for.
//
// A child says both on its standard error, a file in memory; every other descriptor but standard input and output is
// closed in it, above all the loop's and the sockets. It says no last words and leaves no core file, and it ends with
// the agent. The control service owns the one object.
#pragma once

#include "agent/host/Refusal.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

namespace asio {
class io_context;
}

namespace Agent {

/// What a dry run foretells: one of these.
struct DryRunResult {
    std::optional<std::string> told;
    std::optional<Refusal> refused; // by the function; or there was no child, or it took too long
    std::string fatal = {};         // what would be said on standard error, or how the process would end
};

class DryRuns {
  public:
    /// Children at a time, as each may come to need as much memory as the agent; others wait for their turn.
    static constexpr std::size_t atOnce = 2;
    static constexpr unsigned limitSeconds = 10;

    using Work = std::function<std::string()>;
    using Done = std::function<void(const DryRunResult&)>;

    /// @param context outlives it.
    explicit DryRuns(asio::io_context& context);
    /// Ends the children.
    ~DryRuns();
    DryRuns(const DryRuns&) = delete;
    DryRuns& operator=(const DryRuns&) = delete;

    /// Runs `work` in a child, and calls `done` once with what became of it, here or from the loop. An exception that
    /// leaves it counts as said on standard error, but for a Refusal. A child that runs for too long is ended.
    /// @throws Refusal when the owner has another one.
    void run(std::uint64_t owner, Work work, Done done);
    /// Ends what the owner has; it hears nothing more of it.
    void forget(std::uint64_t owner);

  private:
    struct Run;

    void startNext();
    bool start(const std::shared_ptr<Run>& run);
    void finish(const std::shared_ptr<Run>& run, const DryRunResult& result);

    asio::io_context& context_;
    std::list<std::shared_ptr<Run>> runs_; // in the order in which they were asked for
};

} // namespace Agent
