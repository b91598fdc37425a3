// Table: the one hashed container, under every collection and set of the framework. Its owner alone changes
// it. The entries lie in segments (state/TableSegment.h), in order of insertion; above eight members an index
// finds them (state/TableIndex.h).
//
// Order: that of insertion, the same under every seed. Overwriting a member keeps its place; removing and
// adding again puts it last.
//
// Walks: a walk visits each member that was there when it began and is still there when reached, exactly
// once. Its body may add, remove (the current member or any other), overwrite, clear and walk again, at any
// depth; it may leave early or by an exception. While a walk is open, entries neither move nor go: a removed
// one is only marked, and the outermost walk destroys it when it closes. A table must outlive its walks and
// must not be moved under them.
//
// Addresses: an entry stays where it is until a member is removed outside any walk or the outermost walk
// closes. Adding never moves entries.
//
// Cost: no operation but clear() does more than a bounded amount of work, at any size, as long as hashes tell
// keys apart: adding re-hashes at most one page of the index (384 keys), removing moves at most 255 entries,
// closing a walk does as much per member that was removed. Removing gives memory back: of two neighbouring
// segments, more than half is in use.
//
// Errors: adding may throw std::bad_alloc or, beyond 262,143 segments, std::length_error, and then changed
// nothing. Removing throws nothing. An entry's destructor may use the table, as it is after the removal.
#pragma once

#include "state/Fatal.h"
#include "state/Hash.h"
#include "state/TableCursor.h"
#include "state/TableIndex.h"
#include "state/TableSegment.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace State {

template <class K, class V>
struct MapEntry {
    K key;
    V value;
};

/// `Entry` is what is stored, movable without exceptions. `KeyOf{}(entry)` yields its key, which stays as it
/// is while the entry is a member; the key has `hash(seed)` or a HashOf (state/Hash.h). A KeyOf may have
/// state: it is copied in.
template <class Entry, class KeyOf>
class Table {
  public:
    using Key = std::remove_cvref_t<std::invoke_result_t<const KeyOf&, const Entry&>>;
    template <class E>
    class Walk;

    explicit Table(std::uint32_t seed, KeyOf keyOf = KeyOf{})
        : index_(seed)
        , keyOf_(std::move(keyOf)) {}
    Table(Table&& other) noexcept
        : list_(std::exchange(other.list_, {}))
        , index_(std::move(other.index_))
        , size_(std::exchange(other.size_, 0))
        , keyOf_(other.keyOf_) {}
    Table& operator=(Table&& other) noexcept;
    ~Table() {
        FATAL_ASSERT(walksOpen_ == 0, "a table outlives its walks");
        clear();
    }
    /// A table with copies of the members, in the same order, under the same seed.
    Table clone() const;

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    /// All that the table holds, in bytes, beside itself.
    std::size_t memoryBytes() const;

    /// The member with this key, or null.
    Entry* find(const Key& key) { return lookUp(Unhashed{key}); }
    const Entry* find(const Key& key) const { return lookUp(Unhashed{key}); }
    bool contains(const Key& key) const { return find(key) != nullptr; }

    /// Adds `makeEntry()`, an entry with this key, if there is none; {the member, whether it was added}.
    /// makeEntry must not change the table.
    template <class MakeEntry>
    std::pair<Entry*, bool> findOrInsert(const Key& key, MakeEntry makeEntry) {
        return addUnless(Unhashed{key}, makeEntry);
    }
    /// The same for an entry at hand, which is left as it is if its key is there.
    std::pair<Entry*, bool> insert(Entry&& entry) {
        return findOrInsert(keyOf_(entry), [&]() -> Entry&& { return std::move(entry); });
    }

    /// Removes the member with this key; false if there is none.
    bool erase(const Key& key) {
        return extract(key, [](Entry&&) {});
    }
    /// The same; hands the entry to `consume(Entry&&)` when it is no member any more, and before it is
    /// destroyed. Under an open walk the body may still refer to the key: take the value and leave the key.
    template <class Consume>
    bool extract(const Key& key, Consume consume) {
        return take(Unhashed{key}, consume);
    }

    /// The same three with a key that was hashed before; one of this table's seed is not hashed again.
    HashedKey<Key> hashed(const Key& key) const { return {key, index_.seed()}; }
    const Entry* find(const HashedKey<Key>& key) const { return lookUp(key); }
    /// Begins to load the member, for a look-up that comes soon.
    void prefetch(const HashedKey<Key>& key) const {
        if (index_.built()) {
            index_.find(key.hash(index_.seed()), [this](TableIndex::Position position) {
                __builtin_prefetch(entryAt(index_.segment(position), TableIndex::offset(position)));
                return true;
            });
        }
    }
    template <class MakeEntry>
    std::pair<Entry*, bool> findOrInsert(const HashedKey<Key>& key, MakeEntry makeEntry) {
        return addUnless(key, makeEntry);
    }
    template <class Consume>
    bool extract(const HashedKey<Key>& key, Consume consume) {
        return take(key, consume);
    }

    /// Removes all.
    void clear();

    /// The members, for a range-based for.
    Walk<Entry> walk() { return {*this, list_.first, 0}; }
    Walk<const Entry> walk() const { return {*this, list_.first, 0}; }
    /// The members behind `key`; all if there is no such member.
    Walk<Entry> walkAfter(const Key& key) { return walkBehind<Entry>(key); }
    Walk<const Entry> walkAfter(const Key& key) const { return walkBehind<const Entry>(key); }

  private:
    using Segment = TableSegment;

    static constexpr std::size_t mostScanned = 8; // members without an index
    static constexpr std::size_t mostSegmentsScanned = 6;
    static constexpr std::size_t smallestNext = 3; // capacity of a second segment
    static constexpr unsigned oversize = 4; // a segment this many times larger than needed is too large

    struct Place {
        Segment* segment = nullptr; // null: nowhere
        unsigned offset = 0;
        TableIndex::Slot slot{};
        Entry* entry() const { return segment == nullptr ? nullptr : entryAt(segment, offset); }
    };

    static Entry* entryAt(Segment* segment, unsigned offset) {
        return std::launder(static_cast<Entry*>(segment->place(offset, sizeof(Entry))));
    }
    std::uint32_t hashOf(const Key& key) const { return HashOf<Key>{}(key, index_.seed()); }
    TableIndex::Rehash rehash() const { return {this, &hashesAt}; }
    static void hashesAt(const void* table, const TableIndex::Position* positions, std::size_t count,
                         std::uint32_t* hashes);

    auto matcher(const Key& key, Place& candidate) const {
        return [&, this](TableIndex::Position position) {
            candidate.segment = index_.segment(position);
            candidate.offset = TableIndex::offset(position);
            return keyOf_(*entryAt(candidate.segment, candidate.offset)) == key;
        };
    }

    // `Given` is a HashedKey, or a key that is hashed when, and if, the index is asked.
    struct Unhashed {
        const Key& given;
        const Key& key() const { return given; }
        std::uint32_t hash(std::uint32_t seed) const { return HashOf<Key>{}(given, seed); }
    };
    template <class Given>
    Entry* lookUp(const Given& given) const {
        if (!index_.built())
            return scan(given.key()).entry();
        Place place;
        const TableIndex::Slot slot = index_.find(given.hash(index_.seed()), matcher(given.key(), place));
        return slot.page == nullptr ? nullptr : entryAt(place.segment, place.offset);
    }
    template <class Given, class MakeEntry>
    std::pair<Entry*, bool> addUnless(const Given& given, MakeEntry& makeEntry);
    template <class Given, class Consume>
    bool take(const Given& given, Consume& consume);
    Place locate(const Key& key, std::uint32_t hash) const;
    Place scan(const Key& key) const;
    template <class E>
    Walk<E> walkBehind(const Key& key) const;

    Segment* roomyTail();
    bool outgrowsScan() const;
    void buildIndex();

    void settle(Segment* segment);
    bool filling(const Segment* segment) const;
    bool joins(const Segment* first, const Segment* second) const;
    void gather(Segment* first, Segment* second);
    void moveMembers(Segment* from, Segment* to);
    void freeSegment(Segment* segment);
    void trim();

    void queue(Segment* segment);
    void sweep();
    bool destroyRemoved();

    TableSegmentList list_;
    Segment* queue_ = nullptr; // segments with removed entries, which wait for the outermost walk to close
    TableIndex index_;
    std::uint32_t size_ = 0;
    mutable std::uint32_t walksOpen_ = 0;
    [[no_unique_address]] KeyOf keyOf_;
};

/// What walk() yields: holds the walk open while it lives.
template <class Entry, class KeyOf>
template <class E>
class Table<Entry, KeyOf>::Walk {
  public:
    class Iterator {
      public:
        E& operator*() const { return *entryAt(cursor_.segment(), cursor_.offset()); }
        E* operator->() const { return &**this; }
        Iterator& operator++() {
            cursor_.next();
            return *this;
        }
        bool operator==(std::default_sentinel_t) const { return cursor_.atEnd(); }

      private:
        friend class Walk;
        explicit Iterator(const TableCursor::Range& range)
            : cursor_(range) {}

        TableCursor cursor_;
    };

    /// Over the members from this place on.
    Walk(const Table& table, Segment* segment, unsigned offset)
        : table_(table)
        , range_(table.list_, segment, offset) {
        ++table_.walksOpen_;
    }
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;
    ~Walk() {
        if (table_.walksOpen_ == 1 && table_.queue_ != nullptr)
            const_cast<Table&>(table_).sweep(); // what was removed was removed from no const table
        else
            --table_.walksOpen_;
    }

    Iterator begin() const { return Iterator(range_); }
    std::default_sentinel_t end() const { return {}; }

  private:
    const Table& table_;
    TableCursor::Range range_;
};

// ---- life

template <class Entry, class KeyOf>
Table<Entry, KeyOf>& Table<Entry, KeyOf>::operator=(Table&& other) noexcept {
    Table old(std::move(*this));
    std::swap(list_, other.list_);
    index_ = std::move(other.index_);
    std::swap(size_, other.size_);
    keyOf_ = other.keyOf_;
    return *this;
}

template <class Entry, class KeyOf>
Table<Entry, KeyOf> Table<Entry, KeyOf>::clone() const {
    Table made(index_.seed(), keyOf_);
    for (const Entry& entry : walk())
        made.findOrInsert(keyOf_(entry), [&] { return Entry(entry); });
    return made;
}

template <class Entry, class KeyOf>
std::size_t Table<Entry, KeyOf>::memoryBytes() const {
    std::size_t sum = index_.memoryBytes();
    for (const Segment* segment = list_.first; segment != nullptr; segment = segment->next)
        sum += Segment::bytes(segment->capacity, sizeof(Entry));
    return sum;
}

// ---- finding

template <class Entry, class KeyOf>
auto Table<Entry, KeyOf>::locate(const Key& key, std::uint32_t hash) const -> Place {
    if (!index_.built())
        return scan(key);
    Place place;
    place.slot = index_.find(hash, matcher(key, place));
    return place.slot.page == nullptr ? Place{} : place;
}

/// Looks at every member: faster than an index for a few.
template <class Entry, class KeyOf>
auto Table<Entry, KeyOf>::scan(const Key& key) const -> Place {
    for (Segment* segment = list_.first; segment != nullptr; segment = segment->next) {
        const unsigned at =
            segment->findLive([&](unsigned it) { return keyOf_(*entryAt(segment, it)) == key; });
        if (at != Segment::none)
            return {.segment = segment, .offset = at, .slot = {}};
    }
    return {};
}

template <class Entry, class KeyOf>
template <class E>
auto Table<Entry, KeyOf>::walkBehind(const Key& key) const -> Walk<E> {
    const Place place = locate(key, index_.built() ? hashOf(key) : 0);
    if (place.segment == nullptr)
        return {*this, list_.first, 0};
    return {*this, place.segment, place.offset + 1};
}

template <class Entry, class KeyOf>
void Table<Entry, KeyOf>::hashesAt(const void* table, const TableIndex::Position* positions,
                                   std::size_t count, std::uint32_t* hashes) {
    const Table& self = *static_cast<const Table*>(table);
    const auto entry = [&](std::size_t at) {
        return entryAt(self.index_.segment(positions[at]), TableIndex::offset(positions[at]));
    };
    constexpr std::size_t ahead = 16;
    for (std::size_t at = 0; at < std::min(count, ahead); ++at)
        __builtin_prefetch(entry(at));
    for (std::size_t at = 0; at < count; ++at) {
        __builtin_prefetch(entry(std::min(at + ahead, count - 1)));
        hashes[at] = self.hashOf(self.keyOf_(*entry(at)));
    }
}

} // namespace State

#include "state/TableChange.h"
