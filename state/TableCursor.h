// The place of a walk over the members of a table (state/Table.h): it goes from member to member in order,
// while members are removed and others added behind the last. Nothing that it has still to pass may be freed.
#pragma once

#include "state/TableSegment.h"

#include <cstddef>
#include <cstdint>

namespace State {

class TableCursor {
  public:
    /// The places from this one up to the last that is in use now.
    struct Range {
        Range(const TableSegmentList& list, TableSegment* segment, unsigned at)
            : first(segment)
            , offset(at)
            , last(list.last)
            , end(last == nullptr ? 0 : last->used) {}
        TableSegment* first;
        unsigned offset;
        TableSegment* last;
        unsigned end; // in `last`
    };

    /// At the first member of the range.
    explicit TableCursor(const Range& range)
        : last_(range.last)
        , end_(range.end)
        , segment_(range.first)
        , word_(range.offset / TableSegment::wordBits) {
        if (segment_ == nullptr)
            return;
        if (word_ < TableSegment::words(segment_->used)) {
            readWord();
            rest_ &= ~std::uint64_t{0} << range.offset % TableSegment::wordBits;
        }
        findMember();
    }
    bool atEnd() const { return rest_ == 0; }
    TableSegment* segment() const { return segment_; }
    unsigned offset() const { return TableSegment::offsetOf(word_, rest_); }

    /// To the next member of the range that is still there.
    void next() {
        rest_ &= rest_ - 1;
        rest_ &= segment_->bits(word_).live;
        findMember();
    }

  private:
    void findMember() {
        while (rest_ == 0) {
            ++word_;
            if (word_ * TableSegment::wordBits >= (segment_ == last_ ? end_ : segment_->used)) {
                if (segment_ == last_)
                    return;
                segment_ = segment_->next;
                word_ = 0;
            }
            readWord();
        }
    }
    // The last segment may have got members that are not of the range.
    void readWord() {
        rest_ = segment_->bits(word_).live;
        const std::size_t first = word_ * TableSegment::wordBits;
        if (segment_ == last_ && end_ < first + TableSegment::wordBits)
            rest_ &= ~(~std::uint64_t{0} << (end_ - first));
    }

    TableSegment* last_;
    std::size_t end_;
    TableSegment* segment_;
    std::size_t word_;
    std::uint64_t rest_ = 0; // of the word's members: this one and those to come; 0 at the end
};

} // namespace State
