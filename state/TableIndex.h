// The index of a table (state/Table.h): finds the place of an entry from the hash of its key. It knows
// places, by position, and neither keys nor entries; the table compares keys and hashes them again when
// asked.
//
// Extendible hashing (Fagin, Nievergelt, Pippenger, Strong: "Extendible hashing - a fast access method for
// dynamic files", 1979). Slots of 32 bits stand in pages of at most 512; the upper bits of a hash choose the
// page through a directory, the lower bits its first slot in there, and collisions probe linearly. A page
// that is three quarters full doubles, at 512 slots it splits in two, and two that have become sparse join:
// no change re-hashes more than one page's keys, at any size. (Where hashes do not tell keys apart, a page
// grows beyond 512 instead.)
#pragma once

#include "state/TableSegment.h"
#include "state/Trailing.h"

#include <cstddef>
#include <cstdint>
#include <utility>

namespace State {

class TableIndex {
  public:
    /// Where an entry lies: the id of its segment and, in the lower 8 bits, the offset in there.
    using Position = std::uint32_t;
    static constexpr unsigned offsetBits = 8;
    static constexpr unsigned positionBits = 26;

    /// What a slot holds: a tag that is not 0 above the position, or one of these.
    static constexpr std::uint32_t free = 0;
    static constexpr std::uint32_t removed = 1; // free, but a probe goes on behind it

    struct PageHeader {
        std::uint32_t mask; // number of slots, a power of two, less one
        std::uint32_t live;
        std::uint32_t removed; // slots in this state
        std::uint32_t depth;   // upper bits in which all hashes of the page agree

        std::uint32_t capacity() const { return mask + 1; }
        bool hasRoom() const { return live + removed < capacity() - capacity() / 4; }
    };
    using Page = Trailing<PageHeader, std::uint32_t>; // its slots
    /// One slot; invalid after makeRoom and remove.
    struct Slot {
        Page* page = nullptr;
        std::uint32_t number = 0;
    };
    /// Hashes the keys of the entries at some positions.
    struct Rehash {
        const void* table;
        void (*hashes)(const void* table, const Position* positions, std::size_t count,
                       std::uint32_t* hashes);
    };

    explicit TableIndex(std::uint32_t seed)
        : seed_(seed) {}
    TableIndex(TableIndex&& other) noexcept
        : ids_(std::exchange(other.ids_, nullptr))
        , directory_(std::exchange(other.directory_, nullptr))
        , shift_(other.shift_)
        , seed_(other.seed_) {}
    TableIndex& operator=(TableIndex&& other) noexcept {
        std::swap(ids_, other.ids_);
        std::swap(directory_, other.directory_);
        std::swap(shift_, other.shift_);
        std::swap(seed_, other.seed_);
        return *this;
    }
    ~TableIndex() { drop(); }

    std::uint32_t seed() const { return seed_; }
    bool built() const { return directory_ != nullptr; }
    /// Makes an empty index with room for 12 members. std::bad_alloc.
    void build();
    /// Back to none.
    void drop();
    /// Forgets all members but no segment. Frees all that it can.
    void clear();
    std::size_t memoryBytes() const;

    // ---- segments
    TableSegment* segment(Position position) const { return ids_->items()[position >> offsetBits].segment; }
    /// Makes sure that there is an id to take. std::bad_alloc; std::length_error when all 262,143 are taken.
    void reserveId();
    /// Gives the segment an id; reserveId comes first.
    void takeId(TableSegment* segment);
    void returnId(std::uint32_t id);
    /// From now on `id` stands for `segment`.
    void passId(std::uint32_t id, TableSegment* segment);
    static Position position(const TableSegment* segment, unsigned offset) {
        return segment->id << offsetBits | offset;
    }

    static unsigned offset(Position position) { return position & 0xff; }

    // ---- members. Inlined always: what `same` refers to is then kept in registers.
    // The slot of the entry for which `same(position)` answers true; page null if there is none.
    template <class Same>
    [[gnu::always_inline]] Slot find(std::uint32_t hash, Same same) const;
    /// The same, but yields {slot, true} or {the free slot to put it, false}.
    template <class Same>
    [[gnu::always_inline]] std::pair<Slot, bool> findOrFree(std::uint32_t hash, Same same) const;

    /// A free slot for a key that is not there.
    Slot freeSlot(std::uint32_t hash) const { return freeSlot(pageOf(hash), hash); }
    /// True if `put` may use this free slot.
    bool hasRoom(Slot slot) const {
        return slot.page->items()[slot.number] == removed || slot.page->hasRoom();
    }
    /// Makes the page of `hash` larger, or two, and yields a free slot. `members`: how many the index holds.
    /// std::bad_alloc.
    Slot makeRoom(std::uint32_t hash, std::size_t members, Rehash rehash);
    void put(Slot slot, std::uint32_t hash, Position position) {
        std::uint32_t& value = slot.page->items()[slot.number];
        slot.page->removed -= value;
        ++slot.page->live;
        value = tagOf(hash) | position;
    }
    void remove(Slot slot, std::uint32_t hash, Rehash rehash);
    /// The entry at `from`, whose key has `hash`, lies at `to` now.
    void move(std::uint32_t hash, Position from, Position to) {
        Page* page = pageOf(hash);
        const std::uint32_t tag = tagOf(hash);
        std::uint32_t at = hash & page->mask;
        while (page->items()[at] != (tag | from))
            at = (at + 1) & page->mask;
        page->items()[at] = tag | to;
    }
    void prefetch(std::uint32_t hash) const {
        const Page* page = pageOf(hash);
        __builtin_prefetch(page->items() + (hash & page->mask));
    }

  private:
    union IdCell {
        TableSegment* segment;
        std::uint32_t nextFree;
    };
    struct IdsHeader {
        std::uint32_t capacity;
        std::uint32_t used;
        std::uint32_t firstFree; // 0: none
    };
    using Ids = Trailing<IdsHeader, IdCell>;
    struct DirectoryHeader {
        std::uint32_t bits;
        std::uint32_t deepest; // pages whose depth is `bits`
    };
    // Of pages, each as often as its depth is smaller than `bits`.
    using Directory = Trailing<DirectoryHeader, Page*>;

    Page* pageOf(std::uint32_t hash) const { return directory_->items()[std::uint64_t{hash} >> shift_]; }
    static std::uint32_t tagOf(std::uint32_t hash) {
        const std::uint32_t tag = hash << (32 - 16) & ~std::uint32_t{0} << positionBits;
        return tag == 0 ? std::uint32_t{1} << positionBits : tag;
    }

    static Slot freeSlot(Page* page, std::uint32_t hash) {
        std::uint32_t at = hash & page->mask;
        while (page->items()[at] > removed)
            at = (at + 1) & page->mask;
        return {page, at};
    }
    static Page* makePage(std::uint32_t capacity, std::uint32_t depth, bool orNull);
    Page* freeOtherPages();
    static void refill(const Page& from, Page& zero, Page& one, unsigned bit, Rehash rehash);
    bool directoryIs(std::uint32_t bits, bool orNull);
    void pageIs(std::uint32_t hash, Page* page);
    void split(std::uint32_t hash, Rehash rehash);
    void remake(std::uint32_t hash, std::uint32_t capacity, bool orNull, Rehash rehash);
    void join(std::uint32_t hash, Rehash rehash);

    Ids* ids_ = nullptr;
    Directory* directory_ = nullptr;
    std::uint32_t shift_ = 32; // 32 less the directory's bits
    std::uint32_t seed_;
};

template <class Same>
inline TableIndex::Slot TableIndex::find(std::uint32_t hash, Same same) const {
    Page* page = pageOf(hash);
    const std::uint32_t tag = tagOf(hash);
    for (std::uint32_t at = hash & page->mask;; at = (at + 1) & page->mask) {
        const std::uint32_t value = page->items()[at];
        if ((value ^ tag) >> positionBits == 0 && same(value ^ tag))
            return {page, at};
        if (value == free)
            return {};
    }
}

template <class Same>
inline std::pair<TableIndex::Slot, bool> TableIndex::findOrFree(std::uint32_t hash, Same same) const {
    Page* page = pageOf(hash);
    const std::uint32_t tag = tagOf(hash);
    Slot reusable;
    for (std::uint32_t at = hash & page->mask;; at = (at + 1) & page->mask) {
        const std::uint32_t value = page->items()[at];
        if ((value ^ tag) >> positionBits == 0 && same(value ^ tag))
            return {{page, at}, true};
        if (value == free)
            return {reusable.page == nullptr ? Slot{page, at} : reusable, false};
        if (value == removed && reusable.page == nullptr)
            reusable = {page, at};
    }
}

} // namespace State
