// L3::VrfName: the name of a VRF, a string of at most 100 bytes. A longer one cannot exist.
#pragma once

#include "state/Hash.h"

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace L3 {

class VrfName {
  public:
    static constexpr std::string_view typeName = "L3::VrfName";
    static constexpr std::size_t maxLength = 100; // bytes

    VrfName() = default;
    /// RangeError if `name` is longer than maxLength.
    VrfName(std::string_view name);
    VrfName(const char* name)
        : VrfName(std::string_view(name)) {}
    VrfName(const std::string& name)
        : VrfName(std::string_view(name)) {}

    static VrfName fromString(std::string_view text) { return VrfName(text); }
    const std::string& stringValue() const { return name_; }
    operator std::string_view() const { return name_; }

    std::uint32_t hash(std::uint32_t seed) const {
        return State::Hasher(seed).mix(std::string_view(name_)).result();
    }
    auto operator<=>(const VrfName&) const = default;

    /// Why a name can't be that of a VRF in use, which is a component of paths; empty: it can be.
    static std::string whyUnusable(std::string_view name);

  private:
    std::string name_;
};

} // namespace L3
