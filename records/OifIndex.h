// Outgoing interfaces as the Quill table names them: OifIndex, a 16-bit index of which 512 is the null index
// that ends a list, and OifIndexList, the indexes of one route as they were written, checked by nobody yet: a
// plain number becomes an OifIndex where it is used.
#pragma once

#include "state/Hash.h"

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string_view>

namespace Quill::Multicast::Fib {

class OifIndex {
  public:
    static constexpr std::string_view typeName = "Quill::Multicast::Fib::OifIndex";
    static constexpr std::uint16_t min = 0;
    static constexpr std::uint16_t null = 512;

    constexpr OifIndex() = default; // the null index
    /// RangeError "Quill::Multicast::Fib::OifIndex::value < ...::min or > ...::null not allowed" above 512.
    constexpr OifIndex(std::uint16_t value)
        : value_(value) {
        if (value > null)
            refuse();
    }
    static OifIndex fromNumber(std::uint64_t number);
    constexpr std::uint16_t value() const { return value_; }
    constexpr bool isNull() const { return value_ == null; }

    constexpr std::uint16_t hashBits() const { return value_; }
    std::uint32_t hash(std::uint32_t seed) const { return State::Hasher(seed).mix(value_).result(); }
    auto operator<=>(const OifIndex&) const = default;

  private:
    [[noreturn]] static void refuse();

    std::uint16_t value_ = null;
};

/// A list of plain numbers in 16 bytes: up to seven stand in the object, more in an array of their own.
class OifIndexList {
  public:
    using Element = std::uint16_t;
    static constexpr std::string_view typeName = "Quill::Multicast::Fib::OifIndexList";

    OifIndexList() = default;
    OifIndexList(std::initializer_list<std::uint16_t> indexes);
    explicit OifIndexList(std::string_view text); // fatal: lists are not built from text
    OifIndexList(const OifIndexList& other);
    OifIndexList(OifIndexList&& other) noexcept;
    OifIndexList& operator=(OifIndexList other) noexcept;
    ~OifIndexList();

    static constexpr std::size_t maxCount = 65535;

    /// Appends, unless it is there. RangeError beyond maxCount.
    void insert(std::uint16_t index);

    std::size_t size() const { return words_[0]; }
    /// The index at `position`; the null index behind the last.
    std::uint16_t at(std::size_t position) const {
        return position < size() ? indexes()[position] : OifIndex::null;
    }
    std::span<const std::uint16_t> indexes() const {
        return {size() > nearCount ? far() : words_.data() + 1, size()};
    }
    auto begin() const { return indexes().begin(); }
    auto end() const { return indexes().end(); }

    bool operator==(const OifIndexList& other) const;
    std::strong_ordering operator<=>(const OifIndexList& other) const;

  private:
    static constexpr std::size_t nearCount = 7;

    // The array's address stands in the last four words, bytewise.
    std::uint16_t* far() const {
        std::uint16_t* address = nullptr;
        std::memcpy(&address, words_.data() + 4, sizeof address);
        return address;
    }
    void farIs(std::uint16_t* address) { std::memcpy(words_.data() + 4, &address, sizeof address); }

    alignas(8) std::array<std::uint16_t, 8> words_{}; // the count, then the indexes
};

} // namespace Quill::Multicast::Fib
