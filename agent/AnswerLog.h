// The log of changed answers behind `watch`: every change of the two answer maps, numbered without gaps from
// 1, the latest 65,536 held, so that a watcher that was away can be told what it missed.
//
// It is made before the plug-in starts, so it hears each change before any reactor of the plug-in does, and
// keeps the answer as it is at that moment; it is closed before the mounter goes, whose teardown nobody is
// told. The application owns it. Read next: Watchers.h, which tells clients.
#pragma once

#include "agent/Answers.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Agent {

class AnswerLog {
  public:
    static constexpr std::size_t heldChanges = 65536;

    /// Begins to listen.
    explicit AnswerLog(const Host& host);
    ~AnswerLog();
    AnswerLog(const AnswerLog&) = delete;
    AnswerLog& operator=(const AnswerLog&) = delete;

    /// Ends listening; what was logged stays.
    void close();

    /// Names this run of the agent: no other one has it.
    const std::string& instance() const { return instance_; }
    /// Number of the last change; 0: there was none.
    std::uint64_t last() const { return last_; }
    /// Number of the oldest change that is held; last() + 1 when none is.
    std::uint64_t oldest() const { return last_ - changes_.size() + 1; }
    /// The change of that number, which is held.
    const RawAnswer& change(std::uint64_t seq) const { return changes_[(seq - 1) % heldChanges]; }

    /// Both maps as they are now.
    std::vector<RawAnswer> snapshot() const { return maps_.all(); }

  private:
    template <NatService service>
    static void heard(void* self, const State::Notification& change);

    AnswerMaps maps_;
    std::string instance_;
    std::vector<RawAnswer> changes_; // number n at (n - 1) % heldChanges
    std::uint64_t last_ = 0;
};

} // namespace Agent
