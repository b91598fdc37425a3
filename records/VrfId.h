// L3::VrfId: numeric identifier of a VRF; 24 bits may be used, a larger number cannot exist. 0 is "not
// assigned", except for the VRF named "default".
#pragma once

#include "state/Hash.h"

#include <compare>
#include <cstdint>
#include <string_view>

namespace L3 {

class VrfId {
  public:
    static constexpr std::string_view typeName = "L3::VrfId";
    static constexpr std::uint32_t max = 0x00ffffff;

    constexpr VrfId() = default;
    /// RangeError "VrfId::value > 0x00ffffff not allowed".
    constexpr VrfId(std::uint32_t value)
        : value_(value) {
        if (value > max)
            refuse();
    }

    /// The same for any number.
    static VrfId fromNumber(std::uint64_t number);
    constexpr std::uint32_t value() const { return value_; }

    std::uint32_t hash(std::uint32_t seed) const { return State::Hasher(seed).mix(value_).result(); }
    auto operator<=>(const VrfId&) const = default;

  private:
    [[noreturn]] static void refuse();

    std::uint32_t value_ = 0;
};

} // namespace L3
