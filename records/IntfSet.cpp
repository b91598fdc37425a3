#include "records/IntfSet.h"

#include "state/Fatal.h"
#include "state/ValueType.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <span>

namespace L3 {

namespace {

// The members of an array, ascending.
template <class Array>
std::span<std::uint32_t> idsOf(Array& array) {
    return {array.items(), array.count};
}

} // namespace

std::uint32_t IntfSet::room(std::uint32_t count) {
    return std::bit_ceil(std::max(count, 2U));
}

IntfSet::Array* IntfSet::allocate(std::uint32_t count) {
    return Array::make(room(count), {.holders = 1, .count = count});
}

void IntfSet::Holder::free(Array* array) noexcept {
    Array::free(array);
}

IntfSet::IntfSet(std::initializer_list<IntfId> members) {
    for (const IntfId member : members)
        insert(member);
}

IntfSet::IntfSet(std::string_view) {
    State::fatal("No String constructor for IntfSet - has collection", __FILE__, __LINE__,
                 __PRETTY_FUNCTION__);
}

bool IntfSet::has(IntfId member) const {
    Array* array = array_.get();
    return array != nullptr && std::ranges::binary_search(idsOf(*array), member.number());
}

bool IntfSet::insert(IntfId member) {
    const auto id = static_cast<std::uint32_t>(member.number());
    Array* array = array_.get();
    if (array == nullptr) {
        array_ = Holder(allocate(1));
        array_.get()->items()[0] = id;
        return true;
    }
    std::uint32_t* const place = std::lower_bound(array->items(), array->items() + array->count, id);
    const auto before = static_cast<std::size_t>(place - array->items());
    const std::size_t behind = array->count - before;
    if (behind != 0 && *place == id)
        return false;
    if (array->holders == 1 && array->count < room(array->count)) {
        std::memmove(place + 1, place, behind * sizeof id);
        *place = id;
        ++array->count;
        return true;
    }
    Array* grown = allocate(array->count + 1);
    std::copy_n(array->items(), before, grown->items());
    grown->items()[before] = id;
    std::copy_n(place, behind, grown->items() + before + 1);
    array_ = Holder(grown);
    return true;
}

bool IntfSet::erase(IntfId member) {
    if (!has(member))
        return false;
    Array* array = array_.get();
    if (array->count == 1) {
        array_ = Holder();
        return true;
    }
    Array* shrunk = allocate(array->count - 1);
    std::ranges::remove_copy(idsOf(*array), shrunk->items(), static_cast<std::uint32_t>(member.number()));
    array_ = Holder(shrunk);
    return true;
}

void IntfSet::insertAll(const IntfSet& other) {
    Array* mine = array_.get();
    Array* theirs = other.array_.get();
    if (theirs == nullptr || theirs == mine)
        return;
    if (mine == nullptr || std::ranges::includes(idsOf(*theirs), idsOf(*mine))) {
        array_ = other.array_;
        return;
    }
    if (std::ranges::includes(idsOf(*mine), idsOf(*theirs)))
        return;
    Array* merged = allocate(mine->count + theirs->count);
    const auto* end = std::ranges::set_union(idsOf(*mine), idsOf(*theirs), merged->items()).out;
    merged->count =
        static_cast<std::uint32_t>(end - merged->items()); // its room is at least that of the count
    array_ = Holder(merged);
}

bool IntfSet::hasEqualMembers(const IntfSet& other) const {
    Array* mine = array_.get();
    Array* theirs = other.array_.get();
    return mine != nullptr && theirs != nullptr && mine->count == theirs->count &&
           std::memcmp(mine->items(), theirs->items(), mine->count * sizeof(std::uint32_t)) == 0;
}

std::strong_ordering IntfSet::operator<=>(const IntfSet& other) const {
    return std::lexicographical_compare_three_way(begin(), end(), other.begin(), other.end());
}

std::size_t IntfSet::memoryBytes() const {
    return empty() ? 0 : Array::bytes(room(array_.get()->count));
}

void IntfUnion::addToMany(IntfId member) {
    if (isOnly_) {
        isOnly_ = false;
        for (const IntfId earlier : std::exchange(only_, {}))
            add(earlier);
        add(member);
        return;
    }
    for (const std::uint32_t earlier : std::span(few_, std::exchange(count_, 0)))
        mark(earlier);
    mark(member.number());
}

void IntfUnion::mark(std::size_t number) {
    const std::size_t page = number / pageNumbers;
    if (page >= pages_.size())
        pages_.resize(page + 1);
    if (pages_[page] == 0) {
        bits_.emplace_back();
        pages_[page] = static_cast<std::uint32_t>(bits_.size());
    }
    bits_[pages_[page] - 1][number % pageNumbers / 64] |= std::uint64_t{1} << number % 64;
}

void IntfUnion::add(const IntfSet& set) {
    if (set.empty() || (isOnly_ && set == only_))
        return;
    if (!isOnly_ && count_ == 0 && bits_.empty()) {
        only_ = set;
        isOnly_ = true;
        return;
    }
    for (const IntfId member : set)
        add(member);
}

IntfSet IntfUnion::take() {
    if (isOnly_) {
        isOnly_ = false;
        return std::exchange(only_, {});
    }
    if (bits_.empty()) {
        IntfSet set;
        if (count_ != 0) {
            set.array_ = IntfSet::Holder(IntfSet::allocate(count_));
            std::copy_n(few_, std::exchange(count_, 0), set.array_.get()->items());
        }
        return set;
    }
    std::uint32_t count = 0;
    for (const Page& page : bits_)
        for (const std::uint64_t word : page)
            count += static_cast<std::uint32_t>(std::popcount(word));
    IntfSet set;
    set.array_ = IntfSet::Holder(IntfSet::allocate(count));
    std::uint32_t* at = set.array_.get()->items();
    for (std::size_t page = 0; page < pages_.size(); ++page) {
        if (pages_[page] == 0)
            continue;
        std::size_t first = page * pageNumbers; // number of the word
        for (std::uint64_t left : bits_[pages_[page] - 1]) {
            for (; left != 0; left &= left - 1)
                *at++ =
                    static_cast<std::uint32_t>(first) + static_cast<std::uint32_t>(std::countr_zero(left));
            first += 64;
        }
    }
    pages_.clear();
    bits_.clear();
    return set;
}

STATE_VALUE_TYPE(IntfSet);

} // namespace L3
