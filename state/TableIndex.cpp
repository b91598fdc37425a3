#include "state/TableIndex.h"

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <stdexcept>

namespace State {

namespace {

constexpr std::uint32_t smallestPage = 16;
constexpr std::uint32_t largestPage = 512;
constexpr std::uint32_t firstIds = 8;
constexpr std::uint32_t mostIds = std::uint32_t{1} << (TableIndex::positionBits - TableIndex::offsetBits);
constexpr std::uint32_t positionMask = (std::uint32_t{1} << TableIndex::positionBits) - 1;
constexpr unsigned hashBits = 32;

// The directory grows only while each of its entries stands for this many members: more would not help, the
// hashes do not tell the keys apart.
constexpr std::size_t membersPerDirectoryEntry = 64;

template <class Block, class Header>
Block* block(std::size_t count, const Header& header, bool orNull) {
    return orNull ? Block::makeOrNull(count, header) : Block::make(count, header);
}

} // namespace

// ---- life and size

void TableIndex::build() {
    Page* page = makePage(smallestPage, 0, false);
    try {
        directoryIs(0, false);
    } catch (...) {
        Page::free(page);
        throw;
    }
    directory_->items()[0] = page;
    directory_->deepest = 1;
}

void TableIndex::drop() {
    if (directory_ != nullptr)
        Page::free(freeOtherPages());
    Directory::free(std::exchange(directory_, nullptr));
    Ids::free(std::exchange(ids_, nullptr));
    shift_ = hashBits;
}

void TableIndex::clear() {
    Page* kept = freeOtherPages();
    std::fill_n(kept->items(), kept->capacity(), free);
    static_cast<PageHeader&>(*kept) = {.mask = kept->mask, .live = 0, .removed = 0, .depth = 0};
    directory_->bits = 0;
    directory_->deepest = 1;
    shift_ = hashBits;
    directoryIs(0, true); // smaller, if there is memory
}

// Frees all pages but the first, which it yields.
TableIndex::Page* TableIndex::freeOtherPages() {
    Page** pages = directory_->items();
    for (std::size_t at = 0; at < std::size_t{1} << directory_->bits;) {
        Page* page = pages[at];
        at += std::size_t{1} << (directory_->bits - page->depth);
        if (page != pages[0])
            Page::free(page);
    }
    return pages[0];
}

std::size_t TableIndex::memoryBytes() const {
    std::size_t sum = 0;
    if (ids_ != nullptr)
        sum += Ids::bytes(ids_->capacity);
    if (directory_ != nullptr) {
        const std::size_t count = std::size_t{1} << directory_->bits;
        sum += Directory::bytes(count);
        for (std::size_t at = 0; at < count;) {
            const Page* page = directory_->items()[at];
            at += std::size_t{1} << (directory_->bits - page->depth);
            sum += Page::bytes(page->capacity());
        }
    }
    return sum;
}

// ---- segments

void TableIndex::reserveId() {
    if (ids_ != nullptr && (ids_->firstFree != 0 || ids_->used < ids_->capacity))
        return;
    const std::uint32_t used = ids_ == nullptr ? 1 : ids_->used; // 0 is no id
    if (used == mostIds) {
        throw std::length_error(
            "State::Table: all 262143 segments for members are taken, no room for another");
    }
    const std::uint32_t capacity = ids_ == nullptr ? firstIds : ids_->capacity * 2;
    Ids* made = Ids::make(capacity, {.capacity = capacity, .used = used, .firstFree = 0});
    for (std::uint32_t id = 0; id < capacity; ++id)
        ::new (made->items() + id) IdCell(ids_ != nullptr && id < used ? ids_->items()[id] : IdCell{nullptr});
    Ids::free(std::exchange(ids_, made));
}

void TableIndex::takeId(TableSegment* segment) {
    std::uint32_t id = ids_->firstFree;
    if (id != 0)
        ids_->firstFree = ids_->items()[id].nextFree;
    else
        id = ids_->used++;
    passId(id, segment);
}

void TableIndex::passId(std::uint32_t id, TableSegment* segment) {
    ids_->items()[id].segment = segment;
    segment->id = id;
}

void TableIndex::returnId(std::uint32_t id) {
    ids_->items()[id].nextFree = ids_->firstFree;
    ids_->firstFree = id;
}

// ---- pages

TableIndex::Page* TableIndex::makePage(std::uint32_t capacity, std::uint32_t depth, bool orNull) {
    const PageHeader header{.mask = capacity - 1, .live = 0, .removed = 0, .depth = depth};
    auto* page = block<Page>(capacity, header, orNull);
    if (page != nullptr)
        std::uninitialized_fill_n(page->items(), capacity, free);
    return page;
}

// Puts the members of `from` into the new pages `one` and `zero`, by bit number `bit` of their hash.
void TableIndex::refill(const Page& from, Page& zero, Page& one, unsigned bit, Rehash rehash) {
    std::array<Position, 128> positions;
    std::array<std::uint32_t, 128> values;
    std::array<std::uint32_t, 128> hashes;
    const std::uint32_t* slot = from.items();
    const std::uint32_t* end = slot + from.capacity();
    while (slot != end) {
        std::size_t count = 0;
        for (; slot != end && count != values.size();
             ++slot) { // a branch here would go wrong half of the time
            values[count] = *slot;
            positions[count] = *slot & positionMask;
            count += *slot > removed ? 1 : 0;
        }
        rehash.hashes(rehash.table, positions.data(), count, hashes.data());
        for (std::size_t at = 0; at < count; ++at) {
            Page& target = (hashes[at] >> bit & 1) == 0 ? zero : one;
            const Slot to = freeSlot(&target, hashes[at]);
            target.items()[to.number] = values[at];
            ++target.live;
        }
    }
}

// Makes a directory of 2 to the power of `bits` entries from the present one; false: no memory, nothing
// changed.
bool TableIndex::directoryIs(std::uint32_t bits, bool orNull) {
    const std::size_t count = std::size_t{1} << bits;
    auto* made = block<Directory>(count, DirectoryHeader{.bits = bits, .deepest = 0}, orNull);
    if (made == nullptr)
        return false;
    for (std::size_t at = 0; at < count; ++at) {
        Page* page = nullptr;
        if (directory_ != nullptr) {
            page = directory_->items()[bits >= directory_->bits ? at >> (bits - directory_->bits)
                                                                : at << (directory_->bits - bits)];
            made->deepest += page->depth == bits ? 1 : 0;
        }
        ::new (made->items() + at) Page*(page);
    }
    Directory::free(std::exchange(directory_, made));
    shift_ = hashBits - bits;
    return true;
}

// Enters `page` for all hashes that agree with `hash` in the page's depth, in place of what is there.
void TableIndex::pageIs(std::uint32_t hash, Page* page) {
    const unsigned span = directory_->bits - page->depth;
    Page** entry = directory_->items() + ((std::uint64_t{hash} >> shift_) >> span << span);
    Page** const end = entry + (std::size_t{1} << span);
    do {
        *entry = page;
    } while (++entry != end);
}

void TableIndex::split(std::uint32_t hash, Rehash rehash) {
    Page* old = pageOf(hash);
    const std::uint32_t depth = old->depth + 1;
    if (depth > directory_->bits)
        directoryIs(depth, false);
    Page* zero = makePage(old->capacity(), depth, false);
    Page* one = makePage(old->capacity(), depth, true);
    if (one == nullptr) {
        Page::free(zero);
        throw std::bad_alloc();
    }
    const unsigned bit = hashBits - depth;
    refill(*old, *zero, *one, bit, rehash);
    pageIs(hash & ~(std::uint32_t{1} << bit), zero);
    pageIs(hash | std::uint32_t{1} << bit, one);
    directory_->deepest += depth == directory_->bits ? 2 : 0;
    Page::free(old);
}

// Makes the page of `hash` anew, without removed slots.
void TableIndex::remake(std::uint32_t hash, std::uint32_t capacity, bool orNull, Rehash rehash) {
    Page* old = pageOf(hash);
    Page* made = makePage(capacity, old->depth, orNull);
    if (made != nullptr) {
        refill(*old, *made, *made, 0, rehash);
        pageIs(hash, made);
        Page::free(old);
    }
}

// Joins the page of `hash` with the one it was split from, if both fit well into one.
void TableIndex::join(std::uint32_t hash, Rehash rehash) {
    Page* page = pageOf(hash);
    Page* buddy = pageOf(hash ^ std::uint32_t{1} << (hashBits - page->depth));
    const std::uint32_t capacity = std::max(page->capacity(), buddy->capacity());
    if (buddy->depth != page->depth || page->live + buddy->live > capacity / 2)
        return;
    Page* made = makePage(capacity, page->depth - 1, true);
    if (made == nullptr)
        return;
    refill(*page, *made, *made, 0, rehash);
    refill(*buddy, *made, *made, 0, rehash);
    directory_->deepest -= page->depth == directory_->bits ? 2 : 0;
    pageIs(hash, made);
    Page::free(page);
    Page::free(buddy);
    while (directory_->deepest == 0 && directoryIs(directory_->bits - 1, true)) {
    }
}

// ---- members

TableIndex::Slot TableIndex::makeRoom(std::uint32_t hash, std::size_t members, Rehash rehash) {
    while (!pageOf(hash)->hasRoom()) {
        const Page* page = pageOf(hash);
        const std::uint32_t capacity = page->capacity();
        const bool splits = page->depth < directory_->bits ||
                            (std::size_t{2} << directory_->bits) * membersPerDirectoryEntry <= members;
        if (page->live <= capacity / 2)
            remake(hash, capacity, false, rehash);
        else if (capacity == largestPage && splits)
            split(hash, rehash);
        else
            remake(hash, capacity * 2, false, rehash);
    }
    return freeSlot(pageOf(hash), hash);
}

void TableIndex::remove(Slot slot, std::uint32_t hash, Rehash rehash) {
    Page* page = slot.page;
    std::uint32_t* slots = page->items();
    slots[slot.number] = removed;
    --page->live;
    ++page->removed;
    if (slots[(slot.number + 1) & page->mask] == free) { // no probe goes on behind it
        for (std::uint32_t at = slot.number; slots[at] == removed; at = (at - 1) & page->mask) {
            slots[at] = free;
            --page->removed;
        }
    }
    if (page->live > page->capacity() / 8)
        return;
    if (page->depth > 0)
        join(hash, rehash);
    else if (page->capacity() > smallestPage)
        remake(hash, page->capacity() / 2, true, rehash);
}

} // namespace State
