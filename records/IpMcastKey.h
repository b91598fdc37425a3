// KestrelL3::IpMcastKey: key of the hardware multicast group tables (records/MrouteGroup.h).
#pragma once

#include "records/IpAddr.h"
#include "state/Value.h"

#include <compare>
#include <cstdint>

namespace KestrelL3 {

struct IpMcastKey {
    std::uint16_t vrfId = 0; // the low 16 bits of the VRF's identifier
    L3::IpGenAddr source;
    L3::IpGenAddr group;
    std::uint16_t vlanId = 0;

    static constexpr auto describe() {
        return State::describe("KestrelL3::IpMcastKey", State::field("vrfId", &IpMcastKey::vrfId),
                               State::field("source", &IpMcastKey::source),
                               State::field("group", &IpMcastKey::group),
                               State::field("vlanId", &IpMcastKey::vlanId));
    }
    std::uint32_t hash(std::uint32_t seed) const;
    auto operator<=>(const IpMcastKey&) const = default;
};

} // namespace KestrelL3
