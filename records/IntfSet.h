// L3::IntfSet: a set of interfaces, as one handle to an immutable array sorted by the interfaces' numbers;
// null when empty. Copies share the array, so that a route and the answers made from it hold one. Changing a
// set copies the array unless this holder is the only one; an iterator holds the array it walks, so a walk
// sees the set as it was when it began. IntfUnion collects a large set. The answer type is
// records/NatMrouteOifSet.h.
#pragma once

#include "records/IntfId.h"
#include "state/Trailing.h"

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace L3 {

class IntfSet {
  public:
    using Element = IntfId;
    static constexpr std::string_view typeName = "L3::IntfSet";

    class Iterator;

    IntfSet() noexcept = default;
    IntfSet(std::initializer_list<IntfId> members);
    explicit IntfSet(std::string_view text); // fatal: sets are not built from text

    bool empty() const { return array_.get() == nullptr; }
    std::size_t size() const { return empty() ? 0 : array_.get()->count; }
    bool has(IntfId member) const;
    /// Inserts if absent; true if something changed.
    bool insert(IntfId member);
    /// Removes if present; true if something changed.
    bool erase(IntfId member);
    /// Inserts every member of `other`.
    void insertAll(const IntfSet& other);

    /// Ascending by number.
    Iterator begin() const;
    Iterator end() const;

    bool operator==(const IntfSet& other) const {
        return array_.get() == other.array_.get() || hasEqualMembers(other);
    }
    std::strong_ordering operator<=>(const IntfSet& other) const;

    /// Bytes of the array, which all copies share.
    std::size_t memoryBytes() const;

  private:
    friend class IntfUnion;

    // The members' numbers, which fit 32 bits (IntfId.h), follow the header. Room is the count
    // rounded up to a power of two.
    struct ArrayHeader {
        std::uint32_t holders;
        std::uint32_t count;
    };
    using Array = State::Trailing<ArrayHeader, std::uint32_t>;
    bool hasEqualMembers(const IntfSet& other) const;
    static std::uint32_t room(std::uint32_t count);
    static Array* allocate(std::uint32_t count);

    class Holder {
      public:
        Holder() noexcept = default;
        explicit Holder(Array* array) noexcept
            : array_(array) {} // takes over the one holder that it has
        Holder(const Holder& other) noexcept
            : array_(other.array_) {
            if (array_ != nullptr)
                ++array_->holders;
        }
        Holder(Holder&& other) noexcept
            : array_(std::exchange(other.array_, nullptr)) {}
        Holder& operator=(Holder other) noexcept {
            std::swap(array_, other.array_);
            return *this;
        }
        ~Holder() {
            if (array_ != nullptr && --array_->holders == 0)
                free(array_);
        }
        Array* get() const { return array_; }

      private:
        // Apart: g++ takes a count that it cannot follow for a use after the end.
        [[gnu::noinline]] static void free(Array* array) noexcept;

        Array* array_ = nullptr;
    };

    Holder array_;
};

class IntfSet::Iterator {
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = IntfId;
    using difference_type = std::ptrdiff_t;
    using pointer = const IntfId*;
    using reference = IntfId;

    IntfId operator*() const { return {IntfId::Unchecked{}, array_.get()->items()[at_]}; }
    Iterator& operator++() {
        ++at_;
        return *this;
    }
    void operator++(int) { ++at_; }
    bool operator==(const Iterator& other) const { return at_ == other.at_; }

  private:
    friend class IntfSet;
    Iterator(Holder array, std::uint32_t at)
        : array_(std::move(array))
        , at_(at) {}

    Holder array_;
    std::uint32_t at_;
};

inline IntfSet::Iterator IntfSet::begin() const {
    return {array_, 0};
}
inline IntfSet::Iterator IntfSet::end() const {
    return {Holder(), static_cast<std::uint32_t>(size())};
}

/// Collects the union of many interfaces and sets. A few stand in a sorted array within; more go into a bitmap
/// over the interface numbers, which costs a few nanoseconds a member where inserting one by one into a sorted set
/// costs tens. The bitmap has the pages alone that hold members: between numbers of long ago and new ones there may
/// be millions.
class IntfUnion {
  public:
    void add(IntfId member) {
        if (isOnly_ || !bits_.empty()) {
            addToMany(member);
            return;
        }
        const auto id = static_cast<std::uint32_t>(member.number());
        std::uint32_t at = count_;
        while (at > 0 && few_[at - 1] > id)
            --at;
        if (at > 0 && few_[at - 1] == id)
            return;
        if (count_ == mostFew) {
            addToMany(member);
            return;
        }
        for (std::uint32_t moved = count_++; moved > at; --moved)
            few_[moved] = few_[moved - 1];
        few_[at] = id;
    }
    void add(const IntfSet& set);
    /// What was collected; shares the array of the one set added, where it was one.
    IntfSet take();

  private:
    static constexpr std::uint32_t mostFew = 16;

    using Page = std::array<std::uint64_t, 16>;
    static constexpr std::size_t pageNumbers = 64 * std::tuple_size_v<Page>;

    void addToMany(IntfId member);
    void mark(std::size_t number);

    IntfSet only_; // the first set, while nothing else was added
    bool isOnly_ = false;
    std::uint32_t count_ = 0;          // of few_
    std::uint32_t few_[mostFew];       // ascending; moved into the bitmap, which is then not empty, when full
    std::vector<Page> bits_;           // in the order in which they came
    std::vector<std::uint32_t> pages_; // by number / pageNumbers: the place in bits_, from 1; 0: none
};

} // namespace L3
