// L3::IntfId: an interface, as a 64-bit number that stands for its name in a table of the process. The empty
// name is number 0 and means "none". Numbers are given in order of naming, fit 31 bits, and never stand for another name.
//
// A name that is entered stays until it is swept, so whoever only looks at what others say, or may yet refuse it, does
// so under an IntfId::Provisional. Sweeping is for who knows all that holds interfaces (agent/changes/NameSweep.h): a
// number whose name was swept prints as "?", and the name gets another number when it comes again.
#pragma once

#include "state/Hash.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace L3 {

class IntfId {
  public:
    static constexpr std::string_view typeName = "L3::IntfId";
    static constexpr std::size_t maxNameLength = 63; // bytes
    static constexpr std::size_t maxNames = 65536;

    class Provisional;

    constexpr IntfId() = default;
    /// The interface of that name, which enters the table if it is new (the one of a Provisional, while there is one).
    /// RangeError for a name that is too long, holds blanks or control bytes, or is one more than the table holds.
    explicit IntfId(std::string_view name);

    static IntfId fromString(std::string_view name) { return IntfId(name); }
    /// The interface with that number, which must have been given out, swept since or not; RangeError otherwise.
    static IntfId fromNumber(std::uint64_t number);
    /// The interface of that name, if the table has it.
    static std::optional<IntfId> find(std::string_view name);
    /// How many names the table holds.
    static std::size_t names();
    /// The greatest number given so far; numbers run from 1.
    static std::uint64_t lastNumber();
    /// How often a name was refused because the table was full.
    static std::uint64_t refusals();
    /// Takes the names out of the table for which isCarried(interface) is false; how many went.
    static std::size_t sweep(const std::function<bool(IntfId)>& isCarried);
    static constexpr std::uint64_t firstProvisional = std::uint64_t{1} << 31;

    /// The name; "?" where the number stands for none.
    const std::string& stringValue() const;
    constexpr std::uint64_t number() const { return number_; }
    constexpr bool isEmpty() const { return number_ == 0; }

    constexpr std::uint64_t hashBits() const { return number_; }
    std::uint32_t hash(std::uint32_t seed) const { return State::Hasher(seed).mix(number_).result(); }
    auto operator<=>(const IntfId&) const = default;

  private:
    struct Unchecked {};
    constexpr IntfId(Unchecked, std::uint64_t number)
        : number_(number) {}
    friend class IntfSet;

    std::uint64_t number_ = 0;
};

/// While one lives, names that the table doesn't have are not entered there: they take numbers from firstProvisional on
/// that mean nothing afterwards. Ids among which may be such are not to be stored. One inside another does nothing.
class IntfId::Provisional {
  public:
    Provisional();
    ~Provisional();
    Provisional(const Provisional&) = delete;
    Provisional& operator=(const Provisional&) = delete;

    /// How many names have been met that the table doesn't have.
    static std::size_t newNames();

  private:
    bool isOuter_;
};

} // namespace L3
