// How a table changes: adding, removing, giving memory back, and what was removed under a walk. The second part of
// state/Table.h, which includes it at its end; nobody else does.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace State {

// ---- adding

template <class Entry, class KeyOf>
template <class Given, class MakeEntry>
std::pair<Entry*, bool> Table<Entry, KeyOf>::addUnless(const Given& given, MakeEntry& makeEntry) {
    const Key& key = given.key();
    static_assert(std::is_nothrow_move_constructible_v<Entry>);
    static_assert(alignof(Entry) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
    if (!index_.built()) {
        if (const Place place = scan(key); place.segment != nullptr)
            return {place.entry(), false};
        if (outgrowsScan())
            buildIndex();
    }
    TableIndex::Slot slot;
    std::uint32_t hash = 0;
    if (index_.built()) {
        hash = given.hash(index_.seed());
        Place place;
        const auto found = index_.findOrFree(hash, matcher(key, place));
        if (found.second)
            return {place.entry(), false};
        slot = index_.hasRoom(found.first) ? found.first : index_.makeRoom(hash, size_, rehash());
    }
    Segment* tail = roomyTail();
    const unsigned offset = tail->used;
    const std::uint32_t size = size_;
    Entry* entry = ::new (tail->place(offset, sizeof(Entry))) Entry(makeEntry());
    FATAL_ASSERT(size_ == size && list_.last == tail && tail->used == offset,
                 "makeEntry left the table alone");
    ++tail->used;
    tail->fill(offset);
    ++size_;
    if (slot.page != nullptr)
        index_.put(slot, hash, TableIndex::position(tail, offset));
    return {entry, true};
}

/// The last segment, a new one if that is full: a new one holds as many as the table has members.
template <class Entry, class KeyOf>
TableSegment* Table<Entry, KeyOf>::roomyTail() {
    if (list_.last != nullptr && list_.last->used < list_.last->capacity)
        return list_.last;
    if (index_.built())
        index_.reserveId();
    const std::size_t capacity =
        size_ == 0 ? 1 : std::clamp<std::size_t>(size_, smallestNext, Segment::maxCapacity);
    Segment* made = Segment::make(capacity, sizeof(Entry), false);
    if (index_.built())
        index_.takeId(made);
    list_.append(made);
    return made;
}

/// Whether another member would make scanning slow: many members, or many segments (of those removed under a
/// walk).
template <class Entry, class KeyOf>
bool Table<Entry, KeyOf>::outgrowsScan() const {
    std::size_t segments = 0;
    for (const Segment* segment = list_.first; segment != nullptr; segment = segment->next)
        ++segments;
    return size_ >= mostScanned || segments > mostSegmentsScanned;
}

template <class Entry, class KeyOf>
void Table<Entry, KeyOf>::buildIndex() {
    TableIndex made(index_.seed());
    made.build();
    for (Segment* segment = list_.first; segment != nullptr; segment = segment->next) {
        made.reserveId();
        made.takeId(segment);
        segment->eachLive([&](unsigned at) {
            const std::uint32_t hash = hashOf(keyOf_(*entryAt(segment, at)));
            made.put(made.freeSlot(hash), hash, TableIndex::position(segment, at));
        });
    }
    index_ = std::move(made);
}

// ---- removing

template <class Entry, class KeyOf>
template <class Given, class Consume>
bool Table<Entry, KeyOf>::take(const Given& given, Consume& consume) {
    const std::uint32_t hash = index_.built() ? given.hash(index_.seed()) : 0;
    const Place place = locate(given.key(), hash);
    if (place.segment == nullptr)
        return false;
    if (index_.built())
        index_.remove(place.slot, hash, rehash());
    --size_;
    place.segment->remove(place.offset);
    if (walksOpen_ != 0) {
        queue(place.segment);
        consume(std::move(*place.entry()));
        return true;
    }
    place.segment->release(place.offset);
    Entry gone(std::move(*place.entry()));
    std::destroy_at(place.entry());
    settle(place.segment);
    trim();
    consume(std::move(gone));
    return true;
}

template <class Entry, class KeyOf>
void Table<Entry, KeyOf>::clear() {
    size_ = 0;
    if (walksOpen_ != 0) {
        for (Segment* segment = list_.first; segment != nullptr; segment = segment->next) {
            if (segment->live != 0) {
                segment->removeAll();
                queue(segment);
            }
        }
        if (index_.built())
            index_.clear();
        return;
    }
    index_.drop();
    Segment* segment = std::exchange(list_, {}).first;
    while (segment != nullptr) {
        segment->eachLive([&](unsigned at) { std::destroy_at(entryAt(segment, at)); });
        Segment::free(std::exchange(segment, segment->next));
    }
}

/// Gives back what a segment from which members were removed needs no more.
template <class Entry, class KeyOf>
void Table<Entry, KeyOf>::settle(Segment* segment) {
    const bool oversized = segment->capacity > oversize * size_;
    if (segment->live == 0)
        if (segment == list_.last && !oversized)
            segment->used = 0;
        else
            freeSegment(segment);
    else if (joins(segment->previous, segment))
        gather(segment->previous, segment);
    else if (joins(segment, segment->next))
        gather(segment, segment->next);
    else if (oversized || (segment->capacity >= oversize * segment->live && !filling(segment)))
        gather(segment, nullptr);
}

/// Whether new members will go into this segment: it is best left alone, unless the table has become much
/// smaller.
template <class Entry, class KeyOf>
bool Table<Entry, KeyOf>::filling(const Segment* segment) const {
    return segment == list_.last && segment->used < segment->capacity &&
           segment->capacity <= oversize * size_;
}

template <class Entry, class KeyOf>
bool Table<Entry, KeyOf>::joins(const Segment* first, const Segment* second) const {
    return first != nullptr && second != nullptr && first->live + second->live <= Segment::maxCapacity &&
           !filling(second) && !first->queued && !second->queued;
}

/// Moves the members of two neighbours, or of one segment, into a new one that they fill. Without memory for
/// that, it changes nothing.
template <class Entry, class KeyOf>
void Table<Entry, KeyOf>::gather(Segment* first, Segment* second) {
    const unsigned total = first->live + (second == nullptr ? 0U : second->live);
    Segment* made = Segment::make(total, sizeof(Entry), true);
    if (made == nullptr)
        return;
    if (index_.built())
        index_.passId(first->id, made);
    moveMembers(first, made);
    if (second != nullptr) {
        moveMembers(second, made);
        freeSegment(second);
    }
    list_.replace(first, made);
    Segment::free(first);
}

template <class Entry, class KeyOf>
void Table<Entry, KeyOf>::moveMembers(Segment* from, Segment* to) {
    std::array<std::uint32_t, Segment::maxCapacity> hashes;
    if (index_.built()) {
        from->eachLive([&](unsigned at) {
            hashes[at] = hashOf(keyOf_(*entryAt(from, at)));
            index_.prefetch(hashes[at]);
        });
    }
    from->eachLive([&](unsigned at) {
        Entry* entry = entryAt(from, at);
        const unsigned target = to->used++;
        ::new (to->place(target, sizeof(Entry))) Entry(std::move(*entry));
        std::destroy_at(entry);
        to->fill(target);
        if (index_.built())
            index_.move(hashes[at], TableIndex::position(from, at), TableIndex::position(to, target));
    });
}

template <class Entry, class KeyOf>
void Table<Entry, KeyOf>::freeSegment(Segment* segment) {
    list_.unlink(segment);
    if (index_.built())
        index_.returnId(segment->id);
    Segment::free(segment);
}

/// After a removal: without members nothing is held, with a few no index.
template <class Entry, class KeyOf>
void Table<Entry, KeyOf>::trim() {
    if (size_ == 0)
        clear();
    else if (size_ <= mostScanned / 2)
        index_.drop();
}

// ---- removed under a walk

template <class Entry, class KeyOf>
void Table<Entry, KeyOf>::queue(Segment* segment) {
    if (!segment->queued) {
        segment->queued = true;
        segment->nextQueued = std::exchange(queue_, segment);
    }
}

/// The outermost walk closes. It counts as open while entries are destroyed, whose destructors may use the
/// table.
template <class Entry, class KeyOf>
void Table<Entry, KeyOf>::sweep() {
    while (destroyRemoved()) {
    }
    walksOpen_ = 0;
    while (queue_ != nullptr) {
        Segment* segment = std::exchange(queue_, queue_->nextQueued);
        segment->queued = false;
        settle(segment);
    }
    trim();
}

/// Destroys the removed entries; false if there were none.
template <class Entry, class KeyOf>
bool Table<Entry, KeyOf>::destroyRemoved() {
    bool any = false;
    for (Segment* segment = queue_; segment != nullptr; segment = segment->nextQueued) {
        for (unsigned at = segment->takeRemoved(); at != Segment::none; at = segment->takeRemoved()) {
            std::destroy_at(entryAt(segment, at));
            any = true;
        }
    }
    return any;
}

} // namespace State
