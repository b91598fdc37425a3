#include "agent/changes/AnswerLog.h"

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

AnswerLog::AnswerLog(const Stores& stores)
    : maps_(stores)
    , instance_(randomName()) {
    listener_.emplace(maps_, [this](const Service& service, const RequestKey& key) { append(service, key); });
}

void AnswerLog::append(const Service& service, const RequestKey& key) {
    AnswerChange change = maps_.answer(service, key);
    if (changes_.size() < heldChanges)
        changes_.push_back(std::move(change));
    else
        changes_[last_ % heldChanges] = std::move(change);
    ++last_;
    grown_();
}

} // namespace Agent
