// The clients that watch answers, and how far each has been told. A watcher is told from the answer log at
// its own pace: while it takes what it is sent it hears every change, in order and without gaps; one that
// falls so far behind that the log no longer holds what it misses is cut off.
//
// The control service owns it. Changes are told at the end of each turn and of each request, in slices, so
// that neither a slow watcher nor a flood of changes holds anybody up.
#pragma once

#include "agent/AnswerLog.h"
#include "agent/LineServer.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Agent {

class Watchers {
  public:
    /// Bytes that may wait for a watcher before it is told more.
    static constexpr std::size_t waitingLimit = 256U << 10U;
    /// Changes told per slice.
    static constexpr std::size_t sliceChanges = 2048;

    /// @param log outlives it.
    explicit Watchers(const AnswerLog& log)
        : log_(log) {}

    /// Where to tell them; null: nowhere any more.
    void serverIs(LineServer* server) { server_ = server; }

    /// Tells the client what comes after change number `last`, anew if it watches already.
    void watch(ClientId client, std::uint64_t last);
    /// Not watching is no error.
    void unwatch(ClientId client);
    std::size_t size() const { return watchers_.size(); }

    /// Tells a slice; true if there is more that could be told at once.
    bool tell();

  private:
    struct Watcher {
        ClientId client;
        std::uint64_t next; // number of the change that it is told next
    };

    void cutOffTheLost();
    bool isOpen(const Watcher& watcher) const;
    const Watcher* furthestBehind() const;
    void tellOne(std::uint64_t seq);

    const AnswerLog& log_;
    LineServer* server_ = nullptr;
    std::vector<Watcher> watchers_;
    std::string line_; // kept for its memory
};

} // namespace Agent
