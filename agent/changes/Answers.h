// The plug-in's answers as the agent sees them: what an answer is that changed, who hears every change, and the log
// of changes behind `watch`. How an answer is told: language/AnswerText.h.
#pragma once

#include "agent/changes/NameSweep.h"
#include "agent/host/Services.h"
#include "agent/host/Stores.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

/// An answer of the plug-in that changed, as it is now.
struct AnswerChange {
    const Service* service = nullptr;
    RequestKey key;
    Answer answer; // none: it went
};

/// Hears every change of an answer while it lives, in the order of subscription among others.
class AnswerListener {
  public:
    using Hear = std::function<void(AnswerChange)>;

    AnswerListener(const Stores& stores, Hear hear);
    ~AnswerListener();
    AnswerListener(const AnswerListener&) = delete;
    AnswerListener& operator=(const AnswerListener&) = delete;

  private:
    struct OfService {
        const AnswerListener* listener;
        const Service* service;
    };
    static void notified(void* self, const State::Notification& change);

    Stores stores_;
    Hear hear_;
    std::vector<OfService> subscribers_;
};

/// Every change of an answer, numbered without gaps from 1, the latest 65,536 held, so that a watcher that was away
/// can be told what it missed.
///
/// It is made before the plug-in starts, so it hears each change before any reactor of the plug-in does, and keeps
/// the answer as it is at that moment; it is closed before the mounter goes, whose teardown nobody is told. The
/// application owns it. Read next: control/Watchers.h, which tells clients.
class AnswerLog {
  public:
    static constexpr std::size_t heldChanges = 65536;

    /// Begins to listen. The interfaces of what it holds are added to `names`, which doesn't sweep after its end.
    AnswerLog(const Stores& stores, NameSweep& names);
    AnswerLog(const AnswerLog&) = delete;
    AnswerLog& operator=(const AnswerLog&) = delete;

    /// Has `grown` called after each change, from inside the change: it may do no more than note it.
    void onGrown(std::function<void()> grown) { grown_ = std::move(grown); }
    /// Ends listening; what was logged stays.
    void close() { listener_.reset(); }

    /// Names this run of the agent: no other one has it.
    const std::string& instance() const { return instance_; }
    /// Number of the last change; 0: there was none.
    std::uint64_t last() const { return last_; }
    /// Number of the oldest change that is held; last() + 1 when none is.
    std::uint64_t oldest() const { return last_ - changes_.size() + 1; }
    /// The change of that number, which is held.
    const AnswerChange& change(std::uint64_t seq) const { return changes_[(seq - 1) % heldChanges]; }

  private:
    void append(AnswerChange change);
    void addInterfaces(L3::IntfUnion& carried) const;

    std::string instance_;
    std::vector<AnswerChange> changes_; // number n at (n - 1) % heldChanges
    std::uint64_t last_ = 0;
    std::function<void()> grown_ = [] {};
    std::optional<AnswerListener> listener_;
};

} // namespace Agent
