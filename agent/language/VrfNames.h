// The names of all VRFs as they are now, in order and by identifier: read once for many rows.
#pragma once

#include "agent/changes/Operations.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Agent {

/// Made for one result: reads the stores when it is first asked, and points into them.
class VrfNames {
  public:
    explicit VrfNames(const Operations& operations)
        : operations_(operations) {}

    /// All that have an entry or a switch, in order.
    std::span<const std::string_view> all() const { return read().names; }
    /// The name of the VRF that has an identifier; empty when there is none. An identifier of 0 is none, except for
    /// the VRF "default".
    std::string_view find(std::uint32_t vrfId) const { return nameAt(placeOf(vrfId)); }
    /// The name; where no VRF has the identifier the number.
    std::string text(std::uint32_t vrfId) const;

    /// Where VRFs stand among each other: by name, those without one behind all that have one.
    std::uint64_t placeOf(std::uint32_t vrfId) const;
    /// Of a name, which need not be there.
    std::uint64_t placeOf(std::string_view name) const;
    /// The name at a place; empty at that of the nameless ones.
    std::string_view nameAt(std::uint64_t place) const {
        return place == nameless ? std::string_view() : read().names[place / 2];
    }
    static constexpr std::uint64_t nameless = UINT64_MAX;

  private:
    struct Read {
        std::vector<std::string_view> names;
        std::unordered_map<std::uint32_t, std::uint64_t> places; // by identifier
    };
    const Read& read() const;

    const Operations& operations_;
    mutable std::optional<Read> read_;
};

} // namespace Agent
