// KestrelNat::NatMrouteKey: one NAT multicast request, posted by the NAT feature (records/NatMroute.h,
// records/NatMgroup.h) and the key of its answer.
#pragma once

#include "records/IntfId.h"
#include "records/IpAddr.h"
#include "records/VrfId.h"
#include "state/Value.h"

#include <array>
#include <compare>
#include <cstdint>
#include <string>
#include <utility>

namespace KestrelNat {

/// What is asked for. Other numbers may come and are carried along.
enum class NatRequestType : std::uint8_t { mrouteRequest = 0, mgroupRequest = 1 };

/// Whoever posts requests without the agent's guards in between must know: an mroute request without interface or
/// VLAN, or one for any source and any group, ends the process; so does the next route update after one of two
/// requests was withdrawn that differ in `type` alone.
struct NatMrouteKey {
    L3::IntfId intf;          // the interface that asks
    L3::VrfId vrfId;          // VRF of the request
    std::uint16_t vlanId = 0; // VLAN of the request
    L3::IpAddr sourceIp;      // zero: any source
    L3::IpAddr groupIp;       // zero: any group
    NatRequestType type = NatRequestType::mrouteRequest;

    static constexpr auto describe() {
        return State::describe(
            "KestrelNat::NatMrouteKey", State::field("intf", &NatMrouteKey::intf),
            State::field("vrfId", &NatMrouteKey::vrfId), State::field("vlanId", &NatMrouteKey::vlanId),
            State::field("sourceIp", &NatMrouteKey::sourceIp),
            State::field("groupIp", &NatMrouteKey::groupIp), State::field("type", &NatMrouteKey::type));
    }
    bool isEq(const NatMrouteKey& other) const { return *this == other; }
    /// All fields, packed into three words: every answer is found and written by this hash.
    std::uint32_t hash(std::uint32_t seed) const {
        return State::Hasher(seed)
            .mix(intf.number())
            .mix(std::uint64_t{vrfId.value()} << 32 | std::uint64_t{vlanId} << 8 |
                 static_cast<std::uint64_t>(type))
            .mix(std::uint64_t{sourceIp.value()} << 32 | groupIp.value())
            .result();
    }
    /// "NatMrouteKey (I=Ethernet1, vrfId=3, V=10, S=10.0.0.1, G=239.1.1.1), type=mrouteRequest": the bracket
    /// closes before the type, as everyone who reads these lines expects.
    std::string stringValue() const;

    auto operator<=>(const NatMrouteKey&) const = default;
};

} // namespace KestrelNat

template <>
struct State::EnumNames<KestrelNat::NatRequestType> {
    static constexpr std::string_view typeName = "KestrelNat::NatRequestType";
    static constexpr std::array<std::pair<KestrelNat::NatRequestType, std::string_view>, 2> enumerators{
        {{KestrelNat::NatRequestType::mrouteRequest, "mrouteRequest"},
         {KestrelNat::NatRequestType::mgroupRequest, "mgroupRequest"}}};
};
