// The mroute service with the entities around it, for suites that hold it against something else: VRFs with
// their tables, requests, routes changed by their keys as the routing side does, answers counted. Works with
// the source of routes that the toggle chose.
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMrouteSm.h"
#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Bench {

/// Flow number i: sources and groups are scattered, a source has several groups.
inline KestrelNat::MrouteSourceAndGroup flowOf(std::size_t i) {
    const auto mixed = static_cast<std::uint32_t>(i * 2654435761U);
    return {.sourceIp = L3::IpAddr(0x0a000001U + (mixed >> 12 & 0xffffU)),
            .groupIp = L3::IpAddr(0xe8000000U | static_cast<std::uint32_t>(i))};
}

/// Sets of four interfaces between which routes change.
inline const std::vector<std::uint16_t>& interfacesOf(std::size_t which) {
    static const std::vector<std::uint16_t> sets[] = {{1, 2, 3, 4}, {5, 6, 7, 8}};
    return sets[which % 2];
}

inline L3::IntfId interface(std::uint16_t index) {
    return L3::IntfId("Ethernet" + std::to_string(index));
}

class MrouteRig {
  public:
    using Flow = KestrelNat::MrouteSourceAndGroup;

    MrouteRig() { answers_->subscribe(this, &hear); }
    ~MrouteRig() { answers_->unsubscribe(this, &hear); }
    MrouteRig(const MrouteRig&) = delete;
    MrouteRig& operator=(const MrouteRig&) = delete;

    /// A VRF with a table for each route type; routes go into the static one.
    void vrfIs(std::uint32_t vrf) {
        routeMap_->vrfNameToIdIs("vrf" + std::to_string(vrf), vrf);
        for (const std::string& routeType : KestrelNat::routeTypes()) {
            const KestrelNat::NatMcastRouteKey key{.vrfId = vrf, .routeName = routeType};
            const bool isStatic = routeType == KestrelNat::staticRouteType();
            if (KestrelNat::toggleKestrelNatMfibLumenEnabled()) {
                const auto fib = State::makeHandle<Fib>(routeType);
                if (isStatic)
                    fibs_[vrf] = fib;
                routeMap_->mfibIs(key, fib);
            } else {
                const auto table = State::makeHandle<Table>(routeType);
                for (std::uint16_t i = 1; i <= 8; ++i)
                    table->oifIndexIntfIs(i, interface(i));
                if (isStatic)
                    tables_[vrf] = table;
                routeMap_->mrouteRouteIs(key, table);
            }
        }
    }
    /// Adds or changes a route of a VRF that is there.
    void routeIs(std::uint32_t vrf, const Flow& flow, std::size_t interfaces) {
        const auto key = Routing::Multicast::Fib::IpGenRouteKey::host(flow.sourceIp, flow.groupIp);
        if (KestrelNat::toggleKestrelNatMfibLumenEnabled()) {
            Fib& fib = *fibs_[vrf];
            if (const auto present = fib.route(key)) {
                present->intfIs(intfs_[interfaces % 2]);
                present->versionAdvance();
                return;
            }
            const auto made = State::makeHandle<Lumen::Multicast::Fib::Route>(key);
            made->intfIs(intfs(interfaces)); // an array of its own, as another writer's route has
            fib.routeIs(made);
        } else {
            tables_[vrf]->routeIs(key, rows_[interfaces % 2]);
        }
    }
    void requestIs(const KestrelNat::NatMrouteKey& key) { requests_->mrouteReqIs(key); }
    void egressFromAllVrfsIs(bool all) { capability_->egressFromAllVrfsIs(all); }
    /// The service begins, over what is there.
    void start() {
        machine_ = KestrelNat::natMrouteSmFactory(
            requests_, answers_, State::makeHandle<KestrelNat::MulticastSmStatus>(), routeMap_, capability_);
    }

    /// Null when there is none.
    const KestrelNat::NatMrouteOifSet* answer(const KestrelNat::NatMrouteKey& key) const {
        return answers_->mrouteRespCollection().find(key);
    }
    /// Answers heard to change since the rig was made.
    std::size_t heard() const { return heard_; }

  private:
    using Fib = Lumen::Multicast::Fib::Status;
    using Table = Quill::Multicast::Fib::Status;

    static void hear(void* self, const State::Notification& /*change*/) {
        ++static_cast<MrouteRig*>(self)->heard_;
    }
    static L3::IntfSet intfs(std::size_t which) {
        L3::IntfSet set;
        for (const std::uint16_t index : interfacesOf(which))
            set.insert(interface(index));
        return set;
    }
    static Quill::Multicast::Fib::Route row(std::size_t which) {
        Quill::Multicast::Fib::Route route;
        for (const std::uint16_t index : interfacesOf(which))
            route.oifs.insert(index);
        return route;
    }

    const L3::IntfSet intfs_[2] = {intfs(0), intfs(1)};
    const Quill::Multicast::Fib::Route rows_[2] = {row(0), row(1)};
    std::map<std::uint32_t, State::Handle<Fib>> fibs_;
    std::map<std::uint32_t, State::Handle<Table>> tables_;
    State::Handle<KestrelNat::NatMrouteRequestSet> requests_ =
        State::makeHandle<KestrelNat::NatMrouteRequestSet>();
    State::Handle<KestrelNat::NatMrouteResponseMap> answers_ =
        State::makeHandle<KestrelNat::NatMrouteResponseMap>("answers");
    State::Handle<KestrelNat::NatMrouteRouteMap> routeMap_ =
        State::makeHandle<KestrelNat::NatMrouteRouteMap>();
    State::Handle<KestrelNat::CapabilityConfig> capability_ =
        State::makeHandle<KestrelNat::CapabilityConfig>();
    State::Handle<KestrelNat::NatMrouteSm> machine_;
    std::size_t heard_ = 0;
};

} // namespace Bench
