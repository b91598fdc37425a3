// The clients that watch answers, and how far each has been told. A watcher is told from the answer log at its own
// pace, in order and without gaps, and before that a snapshot of all answers, page by page: each page when it has
// heard every change so far, so that what it knows of an answer never goes back. One that falls so far behind that the
// log no longer holds what it misses gets a new snapshot, which says so.
//
// The control service owns it. Changes are told at the end of the request that made them, and on turns of their own, in
// slices, so that neither a slow watcher nor a flood of changes holds anybody up.
#pragma once

#include "agent/changes/Answers.h"
#include "agent/changes/Operations.h"
#include "agent/control/Sessions.h"
#include "agent/control/Snapshot.h"
#include "agent/language/VrfNames.h"
#include "text/Writer.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Agent {

class Watchers {
  public:
    /// Bytes that may wait for a watcher before it is told more.
    static constexpr std::size_t waitingLimit = 256U << 10U;
    /// Time after which a slice ends.
    static constexpr std::chrono::microseconds sliceTime{500};
    /// Bytes of one line, told to many, after which a slice ends.
    static constexpr std::size_t sliceBytes = 1U << 20U;

    /// All outlive it.
    Watchers(const Operations& operations, const AnswerLog& log)
        : operations_(operations)
        , log_(log) {}

    /// Tells the client what comes after change number `heard`, which is held, anew if it watches already.
    /// @param withText whether each answer comes with its line for people.
    void watchSince(ClientId client, std::uint64_t heard, bool withText);
    /// Gives the first page of a snapshot of now, and tells the client the others and what comes after.
    SnapshotPage watch(ClientId client, bool withText);
    /// Not watching is no error.
    void unwatch(ClientId client);
    std::size_t size() const { return watchers_.size(); }

    /// Tells a slice, in turn among the watchers; true if there may be more that could be told at once.
    bool tell(Sessions& sessions);

  private:
    // What is left of a snapshot.
    struct Rest {
        std::optional<AnswerPlace> after; // none: all
        bool isAfterLoss = false;         // and its first page says so
        bool operator==(const Rest&) const = default;
    };
    struct Watcher {
        ClientId client;
        std::uint64_t next; // number of the change that it is told next
        bool withText;
        std::optional<Rest> rest = {};
    };

    template <class IsLost>
    void loseIf(IsLost isLost);
    bool tellSlice(Sessions& sessions);
    bool isAtPage(const Watcher& watcher) const;
    bool isOpen(const Watcher& watcher, const Sessions& sessions) const;
    const Watcher* nextInTurn(const Sessions& sessions);
    void tellChange(std::uint64_t seq, const VrfNames& vrfs, Sessions& sessions);
    void tellPage(const Rest& rest, const VrfNames& vrfs, Sessions& sessions);
    template <class IsMeant, class WriteLine>
    void tellAll(const char* method, Sessions& sessions, IsMeant isMeant, WriteLine write);

    const Operations& operations_;
    const AnswerLog& log_;
    std::vector<Watcher> watchers_;
    std::size_t turn_ = 0; // whose it is, among watchers_
};

} // namespace Agent
