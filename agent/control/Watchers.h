// The clients that watch answers, and how far each has been told. A watcher is told from the answer log at its own
// pace: while it takes what it is sent it hears every change, in order and without gaps; one that falls so far
// behind that the log no longer holds what it misses is cut off.
//
// The control service owns it. Changes are told at the end of each request, and on turns of their own, in slices, so
// that neither a slow watcher nor a flood of changes holds anybody up.
#pragma once

#include "agent/changes/Answers.h"
#include "agent/changes/Operations.h"
#include "agent/control/Sessions.h"
#include "text/Writer.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Agent {

class Watchers {
  public:
    /// Bytes that may wait for a watcher before it is told more.
    static constexpr std::size_t waitingLimit = 256U << 10U;
    /// Changes told per slice.
    static constexpr std::size_t sliceChanges = 2048;

    /// All outlive it.
    Watchers(const Operations& operations, const AnswerLog& log)
        : operations_(operations)
        , log_(log) {}

    /// Tells the client what comes after change number `last`, anew if it watches already.
    /// @param withText whether each change comes with its line for people.
    void watch(ClientId client, std::uint64_t last, bool withText);
    /// Not watching is no error.
    void unwatch(ClientId client);
    std::size_t size() const { return watchers_.size(); }

    /// Tells a slice; true if there is more that could be told at once.
    bool tell(Sessions& sessions);

  private:
    struct Watcher {
        ClientId client;
        std::uint64_t next; // number of the change that it is told next
        bool withText;
    };

    bool isOpen(const Watcher& watcher, const Sessions& sessions) const;
    const Watcher* furthestBehind(const Sessions& sessions) const;
    void tellOne(std::uint64_t seq, Sessions& sessions);

    const Operations& operations_;
    const AnswerLog& log_;
    std::vector<Watcher> watchers_;
};

/// Writes a change as watchers hear it: {seq, path, attribute, key, value}, with text also vrf and text.
void writeChange(Text::Writer& writer, const Operations& operations, std::uint64_t seq,
                 const AnswerChange& change, bool withText);

} // namespace Agent
