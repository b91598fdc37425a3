// The storage of a table (state/Table.h): a list of segments, each one block of memory with room for up to
// 255 entries, filled from the front. A segment knows which of its places are in use and nothing of the
// entries' type; the table makes and destroys the entries.
//
// A block holds, in this order: the use bits, counted downwards from the header; the header; the entries.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace State {

struct TableSegment {
    /// Use of 64 places. A place is live while it holds a member and held until its entry is destroyed; the
    /// two differ for members that were removed under an open walk.
    struct Bits {
        std::uint64_t live;
        std::uint64_t held;
    };

    static constexpr unsigned maxCapacity = 255; // so that a count fits a byte
    static constexpr unsigned wordBits = 64;
    static constexpr unsigned none = 256; // no offset

    TableSegment* next;
    TableSegment* previous;
    TableSegment* nextQueued; // of the segments that wait for the outermost walk to close
    std::uint32_t id;         // in the index's map of segments; 0 without an index
    std::uint8_t capacity;
    std::uint8_t used; // places that were ever filled
    std::uint8_t live; // members
    bool queued;

    /// A block for `capacity` entries, all bits 0. With `orNull`, lack of memory yields null, otherwise
    /// std::bad_alloc.
    static TableSegment* make(std::size_t capacity, std::size_t entrySize, bool orNull);
    static void free(TableSegment* segment);
    static constexpr std::size_t words(std::size_t capacity) { return (capacity + wordBits - 1) / wordBits; }
    static constexpr std::size_t bytes(std::size_t capacity, std::size_t entrySize) {
        return words(capacity) * sizeof(Bits) + sizeof(TableSegment) + capacity * entrySize;
    }

    void* place(std::size_t offset, std::size_t entrySize) {
        return reinterpret_cast<char*>(this) + sizeof(TableSegment) + offset * entrySize;
    }
    Bits& bits(std::size_t word) { return *(reinterpret_cast<Bits*>(this) - 1 - word); }
    const Bits& bits(std::size_t word) const { return *(reinterpret_cast<const Bits*>(this) - 1 - word); }

    /// The first live place for which `test(offset)` answers true, or `none`.
    template <class Test>
    unsigned findLive(Test test) const {
        for (std::size_t word = 0; word < words(used); ++word) {
            for (std::uint64_t rest = bits(word).live; rest != 0; rest &= rest - 1) {
                const unsigned offset = offsetOf(word, rest);
                if (test(offset))
                    return offset;
            }
        }
        return none;
    }
    template <class Visit>
    void eachLive(Visit visit) const {
        findLive([&](unsigned offset) {
            visit(offset);
            return false;
        });
    }
    /// The offset of the lowest bit of `rest`, which is of bits(word).
    static unsigned offsetOf(std::size_t word, std::uint64_t rest) {
        return static_cast<unsigned>(word * wordBits) + static_cast<unsigned>(std::countr_zero(rest));
    }
    void fill(unsigned offset) {
        Bits& word = bits(offset / wordBits);
        word.live |= bit(offset);
        word.held |= bit(offset);
        ++live;
    }
    void remove(unsigned offset) {
        bits(offset / wordBits).live &= ~bit(offset);
        --live;
    }
    void removeAll() {
        for (std::size_t word = 0; word < words(used); ++word)
            bits(word).live = 0;
        live = 0;
    }
    /// The entry at this place, which was removed, is to be destroyed now.
    void release(unsigned offset) { bits(offset / wordBits).held &= ~bit(offset); }
    /// Releases the first such place there is, and yields it; or `none`.
    unsigned takeRemoved() {
        for (std::size_t word = 0; word < words(used); ++word) {
            const std::uint64_t rest = bits(word).held & ~bits(word).live;
            if (rest != 0) {
                const unsigned offset = offsetOf(word, rest);
                release(offset);
                return offset;
            }
        }
        return none;
    }

  private:
    static constexpr std::uint64_t bit(unsigned offset) { return std::uint64_t{1} << (offset % wordBits); }
};

struct TableSegmentList {
    TableSegment* first = nullptr;
    TableSegment* last = nullptr;

    void append(TableSegment* segment);
    void unlink(TableSegment* segment);
    /// Puts `segment` where `old` is, which leaves the list.
    void replace(TableSegment* old, TableSegment* segment);
};

} // namespace State
