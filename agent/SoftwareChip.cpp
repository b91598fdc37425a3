#include "agent/SoftwareChip.h"

#include "state/Trace.h"

#include <memory>
#include <utility>

TRACE_FACILITY("Agent");

namespace Agent {

namespace {

using KestrelCommon::MrouteGroup::MgroupColl;
using KestrelCommon::MrouteGroup::MgroupItem;
using KestrelCommon::MrouteGroup::MrouteColl;

constexpr const char* configPath = "l3/mroutegroup/config";
constexpr const char* statusPath = "l3/mroutegroup/status";

/// Rows per task, so that the loop comes to others in between.
constexpr std::size_t rowsPerTask = 256;

} // namespace

SoftwareChip::SoftwareChip(const Host& host, Defer defer)
    : config_(
          State::handleCast<MrouteColl>(host.tableStore()->entityIs(configPath, MrouteColl::type().name())))
    , status_(
          State::handleCast<MgroupColl>(host.tableStore()->entityIs(statusPath, MgroupColl::type().name())))
    , defer_(std::move(defer)) {
    config_->subscribe(this, &heard, State::maskOf(MrouteColl::mroutesAttribute));
    for (const Key& key : config_->mroutesCollection().walk())
        rowChanged(key);
}

SoftwareChip::~SoftwareChip() {
    config_->unsubscribe(this, &heard);
}

void SoftwareChip::heard(void* self, const State::Notification& change) {
    static_cast<SoftwareChip*>(self)->rowChanged(Key(change.keyAs<Key>()));
}

void SoftwareChip::rowChanged(const Key& key) {
    if (!defer_) {
        settle(key);
        return;
    }
    pending_.push_back(key);
    if (pending_.size() == 1)
        defer_([this] { workOff(); });
}

void SoftwareChip::workOff() {
    State::traceEventBegin();
    for (std::size_t i = 0; i < rowsPerTask && !pending_.empty(); ++i) {
        // It stays in the queue meanwhile, so that what its settling causes puts off no second task.
        const Key key = pending_.front();
        settle(key);
        pending_.pop_front();
    }
    if (!pending_.empty())
        defer_([this] { workOff(); });
}

/// Brings the status of a key in line with whether its row is there now.
void SoftwareChip::settle(const Key& key) {
    const bool isWanted = config_->mroutesCollection().has(key);
    const auto own = groups_.find(key);
    if (isWanted && own == groups_.end() && !status_->mgroupsHas(key)) {
        const std::uint32_t id = freeId();
        groups_.emplace(key, id);
        TRACE(8, "SoftwareChip::", "settle", " group ", id, " for ", key);
        status_->mgroupsIs(key, MgroupItem{.groupId = id});
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
