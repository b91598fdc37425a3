#include "agent/AnswerLog.h"

#include <sys/random.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace Agent {

namespace {

std::string randomName() {
    std::uint64_t number = 0;
    if (::getrandom(&number, sizeof number, 0) != sizeof number)
        throw std::system_error(errno, std::generic_category(), "getrandom");
    std::string name;
    for (int digit = 0; digit < 16; ++digit, number >>= 4U)
        name += "0123456789abcdef"[number & 15U];
    return name;
}

} // namespace

AnswerLog::AnswerLog(const Host& host)
    : maps_(host)
    , instance_(randomName()) {
    maps_.subscribe(this, &heard<NatService::mroute>, &heard<NatService::mgroup>);
}

AnswerLog::~AnswerLog() {
    close();
}

void AnswerLog::close() {
    maps_.unsubscribe(this, &heard<NatService::mroute>, &heard<NatService::mgroup>);
}

template <NatService service>
void AnswerLog::heard(void* self, const State::Notification& change) {
    auto& log = *static_cast<AnswerLog*>(self);
    RawAnswer answer = log.maps_.answer(service, change.keyAs<KestrelNat::NatMrouteKey>());
    if (log.changes_.size() < heldChanges)
        log.changes_.push_back(std::move(answer));
    else
        log.changes_[log.last_ % heldChanges] = std::move(answer);
    ++log.last_;
}

} // namespace Agent
