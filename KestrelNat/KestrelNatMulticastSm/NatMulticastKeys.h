// The plug-in's own keys: NatMcastRouteKey names a route table, MrouteSourceAndGroup a flow,
// VrfIdMrouteSourceAndGroup a flow within its VRF, MrouteIntfAndVlan a requester of it, MrouteIntfAndVlanSet
// all of its requesters. Plain values; they serve as keys and values of the state machines' collections.
#pragma once

#include "records/IntfId.h"
#include "records/IpAddr.h"
#include "records/NatMrouteKey.h"
#include "records/VrfId.h"
#include "state/Value.h"
#include "state/ValueSet.h"

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace KestrelNat {

struct NatMcastRouteKey {
    L3::VrfId vrfId;
    std::string routeName; // a route type (RouteTypes.h)

    static constexpr auto describe() {
        return State::describe("KestrelNat::NatMcastRouteKey",
                               State::field("vrfId", &NatMcastRouteKey::vrfId),
                               State::field("routeName", &NatMcastRouteKey::routeName));
    }
    std::uint32_t hash(std::uint32_t seed) const { return State::hashFields(*this, seed); }
    auto operator<=>(const NatMcastRouteKey&) const = default;
};

struct MrouteSourceAndGroup {
    L3::IpAddr sourceIp; // zero: any source
    L3::IpAddr groupIp;  // zero: any group

    static constexpr auto describe() {
        return State::describe("KestrelNat::MrouteSourceAndGroup",
                               State::field("sourceIp", &MrouteSourceAndGroup::sourceIp),
                               State::field("groupIp", &MrouteSourceAndGroup::groupIp));
    }
    /// The flow that a request names.
    static MrouteSourceAndGroup of(const NatMrouteKey& key) {
        return State::whole<MrouteSourceAndGroup>(key.sourceIp, key.groupIp);
    }
    std::uint32_t hash(std::uint32_t seed) const { return State::hashFields(*this, seed); }
    auto operator<=>(const MrouteSourceAndGroup&) const = default;
};

struct VrfIdMrouteSourceAndGroup {
    L3::VrfId vrfId;
    MrouteSourceAndGroup sg;

    static constexpr auto describe() {
        return State::describe("KestrelNat::VrfIdMrouteSourceAndGroup",
                               State::field("vrfId", &VrfIdMrouteSourceAndGroup::vrfId),
                               State::field("sg", &VrfIdMrouteSourceAndGroup::sg));
    }
    static VrfIdMrouteSourceAndGroup of(const NatMrouteKey& key) {
        return State::whole<VrfIdMrouteSourceAndGroup>(key.vrfId, MrouteSourceAndGroup::of(key));
    }
    std::uint32_t hash(std::uint32_t seed) const { return State::hashFields(*this, seed); }
    auto operator<=>(const VrfIdMrouteSourceAndGroup&) const = default;
};

struct MrouteIntfAndVlan {
    L3::IntfId intf;
    std::uint16_t vlanId = 0;

    static constexpr auto describe() {
        return State::describe("KestrelNat::MrouteIntfAndVlan",
                               State::field("intf", &MrouteIntfAndVlan::intf),
                               State::field("vlanId", &MrouteIntfAndVlan::vlanId));
    }
    static MrouteIntfAndVlan of(const NatMrouteKey& key) {
        return State::whole<MrouteIntfAndVlan>(key.intf, key.vlanId);
    }
    std::uint32_t hash(std::uint32_t seed) const { return State::hashFields(*this, seed); }
    auto operator<=>(const MrouteIntfAndVlan&) const = default;
};

class MrouteIntfAndVlanSet {
  public:
    using Element = MrouteIntfAndVlan;
    static constexpr std::string_view typeName = "KestrelNat::MrouteIntfAndVlanSet";

    MrouteIntfAndVlanSet() = default;
    explicit MrouteIntfAndVlanSet(std::string_view text); // fatal: sets are not built from text

    /// Inserts if absent; the member that is there then.
    MrouteIntfAndVlan ivIs(const MrouteIntfAndVlan& member) {
        iv_.insert(member);
        return member;
    }
    void ivDel(const MrouteIntfAndVlan& member) { iv_.erase(member); }
    void ivDelAll() { iv_.clear(); }
    bool ivHas(const MrouteIntfAndVlan& member) const { return iv_.has(member); }
    /// The set itself: iv().forEach(...), iv().size().
    const auto& iv() const { return iv_; }
    std::size_t elementCount() const { return iv_.size(); }
    explicit operator bool() const { return !iv_.empty(); }

    std::uint32_t hash(std::uint32_t seed) const { return iv_.hash(seed); }
    bool operator==(const MrouteIntfAndVlanSet&) const = default;
    auto operator<=>(const MrouteIntfAndVlanSet&) const = default;

    void insert(const MrouteIntfAndVlan& member) { iv_.insert(member); }
    std::vector<MrouteIntfAndVlan> elements() const { return iv_.elements(); }

  private:
    State::ValueSet<MrouteIntfAndVlan, 3452798434U> iv_;
};

} // namespace KestrelNat
