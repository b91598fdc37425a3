#include "agent/kernel/MfcTable.h"

namespace Agent::Kernel {

// The index of a slot is the upper half of a multiplication by an odd constant (Fibonacci hashing), after the
// two addresses are mixed so that sources and groups that count up together don't meet.
std::size_t MfcTable::home(const MfcKey& key) const {
    std::uint64_t mixed = (static_cast<std::uint64_t>(key.source) << 32 | key.group) * 0xd6e8feb86659fd93;
    mixed = (mixed ^ (mixed >> 32)) * 0x9e3779b97f4a7c15;
    return static_cast<std::size_t>(mixed >> 32) & (index_.size() - 1);
}

std::size_t MfcTable::slotOf(const MfcKey& key) const {
    std::size_t slot = home(key);
    while (index_[slot] && index_[slot]->key != key)
        slot = (slot + 1) & (index_.size() - 1);
    return slot;
}

MfcEntry* MfcTable::find(const MfcKey& key) {
    return index_.empty() ? nullptr : index_[slotOf(key)];
}

MfcEntry& MfcTable::get(const MfcKey& key) {
    if ((size_ + 1) * 4 > index_.size() * 3)
        grow();
    MfcEntry*& slot = index_[slotOf(key)];
    if (!slot) {
        if (free_.empty()) {
            slot = &entries_.emplace_back();
        } else {
            slot = free_.back();
            free_.pop_back();
        }
        slot->key = key;
        slot->inUse = true;
        ++size_;
    }
    return *slot;
}

// Moves later entries of the run back over the hole, so that no slot ever needs a mark of deletion (Knuth,
// The Art of Computer Programming, vol. 3, 6.4, algorithm R).
void MfcTable::erase(MfcEntry& entry) {
    const std::size_t mask = index_.size() - 1;
    std::size_t hole = slotOf(entry.key);
    for (std::size_t slot = (hole + 1) & mask; index_[slot]; slot = (slot + 1) & mask) {
        std::size_t wanted = home(index_[slot]->key);
        if (((slot - wanted) & mask) >= ((slot - hole) & mask)) {
            index_[hole] = index_[slot];
            hole = slot;
        }
    }
    index_[hole] = nullptr;
    entry = MfcEntry();
    free_.push_back(&entry);
    --size_;
}

void MfcTable::queue(MfcEntry& entry) {
    if (entry.queued)
        return;
    entry.queued = true;
    queue_.push_back(&entry);
}

MfcEntry* MfcTable::takeQueued() {
    if (queue_.empty())
        return nullptr;
    MfcEntry* entry = queue_.front();
    queue_.pop_front();
    entry->queued = false;
    return entry;
}

void MfcTable::grow() {
    index_.assign(index_.empty() ? 16 : index_.size() * 2, nullptr);
    each([&](MfcEntry& entry) { index_[slotOf(entry.key)] = &entry; });
}

} // namespace Agent::Kernel
