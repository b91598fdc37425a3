#include "agent/host/SoftwareChip.h"

#include "state/Trace.h"

#include <utility>

TRACE_FACILITY("Agent");

namespace Agent {

namespace {

using KestrelCommon::MrouteGroup::Mgroup;
using KestrelCommon::MrouteGroup::MgroupColl;
using KestrelCommon::MrouteGroup::MrouteColl;

// Rows done at a time, so that the loop comes to others in between.
constexpr std::size_t rowsAtATime = 256;

template <class T>
State::Handle<T> tableOf(const Stores& stores) {
    return State::handleCast<T>(stores.tables->entityIs(T::path, T::type().name()));
}

} // namespace

SoftwareChip::SoftwareChip(const Stores& stores, std::function<void()> wake)
    : config_(tableOf<MrouteColl>(stores))
    , status_(tableOf<MgroupColl>(stores))
    , wake_(std::move(wake)) {
    config_->subscribe(this, &notified, State::maskOf(MrouteColl::mroutesAttribute));
    for (const Key& key : config_->mroutesCollection().walk())
        rowChanged(key);
}

SoftwareChip::~SoftwareChip() {
    config_->unsubscribe(this, &notified);
}

void SoftwareChip::notified(void* self, const State::Notification& change) {
    static_cast<SoftwareChip*>(self)->rowChanged(Key(change.keyAs<Key>()));
}

void SoftwareChip::rowChanged(const Key& key) {
    if (!wake_) {
        settle(key);
        return;
    }
    pending_.push_back(key);
    wake_();
}

void SoftwareChip::work() {
    State::traceEventBegin();
    for (std::size_t rows = 0; rows < rowsAtATime && !pending_.empty(); ++rows) {
        const Key key = pending_.front();
        pending_.pop_front();
        settle(key);
    }
    if (!pending_.empty())
        wake_();
}

void SoftwareChip::settleAll() {
    while (!pending_.empty())
        work();
}

// Brings the status of a key in line with whether its row is there now.
void SoftwareChip::settle(const Key& key) {
    const bool isWanted = config_->mroutesCollection().has(key);
    const auto own = groups_.find(key);
    if (isWanted && own == groups_.end() && !status_->mgroupsHas(key)) {
        const std::uint32_t id = freeId();
        groups_.emplace(key, id);
        TRACE(8, "SoftwareChip::", "settle", " group ", id, " for ", key);
        status_->mgroupsIs(key, Mgroup{.groupId = id});
    } else if (!isWanted && own != groups_.end()) {
        const std::uint32_t id = own->second;
        groups_.erase(own);
        freed_.insert(id);
        TRACE(8, "SoftwareChip::", "settle", " freed group ", id);
        status_->mgroupsDel(key);
    }
}

std::uint32_t SoftwareChip::freeId() {
    if (freed_.empty())
        return ++lastId_;
    return freed_.extract(freed_.begin()).value();
}

} // namespace Agent
