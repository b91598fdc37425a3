#include "state/TableSegment.h"

#include <new>

namespace State {

TableSegment* TableSegment::make(std::size_t capacity, std::size_t entrySize, bool orNull) {
    const std::size_t size = bytes(capacity, entrySize);
    void* block = orNull ? ::operator new(size, std::nothrow) : ::operator new(size);
    if (block == nullptr)
        return nullptr;
    Bits* bits = static_cast<Bits*>(block);
    for (std::size_t word = 0; word < words(capacity); ++word)
        ::new (bits++) Bits{0, 0};
    return ::new (bits) TableSegment{.next = nullptr,
                                     .previous = nullptr,
                                     .nextQueued = nullptr,
                                     .id = 0,
                                     .capacity = static_cast<std::uint8_t>(capacity),
                                     .used = 0,
                                     .live = 0,
                                     .queued = false};
}

void TableSegment::free(TableSegment* segment) {
    ::operator delete(reinterpret_cast<Bits*>(segment) - words(segment->capacity));
}

void TableSegmentList::append(TableSegment* segment) {
    segment->previous = last;
    segment->next = nullptr;
    (last == nullptr ? first : last->next) = segment;
    last = segment;
}

void TableSegmentList::unlink(TableSegment* segment) {
    (segment->previous == nullptr ? first : segment->previous->next) = segment->next;
    (segment->next == nullptr ? last : segment->next->previous) = segment->previous;
}

void TableSegmentList::replace(TableSegment* old, TableSegment* segment) {
    segment->previous = old->previous;
    segment->next = old->next;
    (old->previous == nullptr ? first : old->previous->next) = segment;
    (old->next == nullptr ? last : old->next->previous) = segment;
}

} // namespace State
