#include "agent/control/Turns.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace Agent {

bool Turns::isLater(const Place& left, const Place& right) {
    return std::tie(left.tag, left.number) > std::tie(right.tag, right.number);
}

Turns::Use Turns::join(Time now) const {
    Use use;
    use.tag_ = used_;
    use.rests_ = now;
    return use;
}

void Turns::want(ClientId client, Use& use, Time now) {
    if (std::exchange(use.isQueued_, true))
        return;
    const Time earned = (now - use.rests_) / restShare;
    use.tag_ = std::max(use.tag_ - earned, used_ - credit) + use.expected_;
    queue_.push_back({.tag = use.tag_, .number = ++lastNumber_, .client = client});
    std::ranges::push_heap(queue_, isLater);
}

ClientId Turns::next() {
    std::ranges::pop_heap(queue_, isLater);
    const Place first = queue_.back();
    queue_.pop_back();
    used_ = std::max(used_, first.tag);
    return first.client;
}

// The clock goes on by the part that each of those who want turns has of the time, so that it does when all of them are
// new. A long turn is remembered for some turns, so that a client does not hide it behind a short one.
void Turns::used(Use& use, Time length, Time now) {
    used_ += length / (static_cast<Time::rep>(queue_.size()) + 1);
    use.isQueued_ = false;
    use.rests_ = now;
    use.tag_ += length - use.expected_;
    use.expected_ = std::max(length, use.expected_ - use.expected_ / 4);
}

} // namespace Agent
