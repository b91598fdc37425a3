// What bench/MrouteBench.cpp measures side by side: the mroute service with one VRF, one table and requests
// for the table's first routes (System), the floor under it (Floor), and a dense table that is walked
// (DenseWalk).
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMrouteSm.h"
#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace MrouteSubjects {

using namespace KestrelNat;
using Routing::Multicast::Fib::IpGenRouteKey;
using State::Handle;
using State::makeHandle;
using LumenRoute = Lumen::Multicast::Fib::Route;

inline const bool lumen = toggleKestrelNatMfibLumenEnabled();
constexpr std::uint32_t vrf = 3;

// The flow of route number i; numbers are scattered so that neighbours share nothing.
inline MrouteSourceAndGroup flowOf(std::size_t i) {
    const auto mixed = static_cast<std::uint32_t>(i * 2654435761U);
    return {.sourceIp = L3::IpAddr(0x0a000000U | (mixed >> 12 & 0xffffU)),
            .groupIp = L3::IpAddr(0xe8000000U | static_cast<std::uint32_t>(i))};
}

// Two sets of four interfaces, between which routes change.
struct Interfaces {
    L3::IntfSet sets[2];
    Quill::Multicast::Fib::Route rows[2];
    Interfaces() {
        for (std::uint16_t i = 0; i < 8; ++i) {
            sets[i / 4].insert(L3::IntfId("Ethernet" + std::to_string(i + 1)));
            rows[i / 4].oifs.insert(static_cast<std::uint16_t>(i + 1));
        }
    }
};

// Heard notifications, so that none is optimised away.
struct Counter {
    std::uint64_t heard = 0;
    static void hear(void* self, const State::Notification&) { ++static_cast<Counter*>(self)->heard; }
};

// ---- the system: one VRF, one table with routes, requests for the first routes

class System {
  public:
    System(std::size_t routes, std::size_t requests, const Interfaces& interfaces) {
        const NatMcastRouteKey key{.vrfId = vrf, .routeName = staticRouteType()};
        map_->vrfNameToIdIs("red", vrf);
        for (std::uint16_t i = 1; i <= 8; ++i)
            table_->oifIndexIntfIs(i, L3::IntfId("Ethernet" + std::to_string(i)));
        for (std::size_t i = 0; i < routes; ++i) {
            const auto flow = flowOf(i);
            const auto routeKey = IpGenRouteKey::host(flow.sourceIp, flow.groupIp);
            if (lumen) {
                auto route = makeHandle<LumenRoute>(routeKey);
                route->intfIs(interfaces.sets[0]);
                fib_->routeIs(route);
                if (i < requests)
                    changed_.push_back(std::move(route));
            } else {
                table_->routeIs(routeKey, interfaces.rows[0]);
            }
        }
        for (std::size_t i = 0; i < requests; ++i)
            requests_->mrouteReqIs(requestOf(i));
        if (lumen)
            map_->mfibIs(key, fib_);
        else
            map_->mrouteRouteIs(key, table_);
    }
    static NatMrouteKey requestOf(std::size_t i) {
        const auto flow = flowOf(i);
        return {.intf = L3::IntfId("Ethernet99"),
                .vrfId = vrf,
                .vlanId = 10,
                .sourceIp = flow.sourceIp,
                .groupIp = flow.groupIp};
    }
    void start() {
        sm_ = natMrouteSmFactory(requests_, answers_, makeHandle<MulticastSmStatus>(), map_,
                                 makeHandle<CapabilityConfig>());
        answers_->subscribe(&counter_, &Counter::hear);
    }
    ~System() { answers_->unsubscribe(&counter_, &Counter::hear); }

    void change(std::size_t i, const Interfaces& interfaces, std::size_t which) {
        if (lumen) {
            changed_[i]->intfIs(interfaces.sets[which]);
            changed_[i]->versionAdvance();
        } else {
            const auto flow = flowOf(i);
            table_->routeIs(IpGenRouteKey::host(flow.sourceIp, flow.groupIp), interfaces.rows[which]);
        }
    }
    void changeInterface(std::uint16_t index, const char* name) {
        table_->oifIndexIntfIs(index, L3::IntfId(name));
    }
    std::uint64_t heard() const { return counter_.heard; }

  private:
    Handle<NatMrouteRequestSet> requests_ = makeHandle<NatMrouteRequestSet>();
    Handle<NatMrouteResponseMap> answers_ = makeHandle<NatMrouteResponseMap>("answers");
    Handle<NatMrouteRouteMap> map_ = makeHandle<NatMrouteRouteMap>();
    Handle<Lumen::Multicast::Fib::Status> fib_ = makeHandle<Lumen::Multicast::Fib::Status>("user");
    Handle<Quill::Multicast::Fib::Status> table_ = makeHandle<Quill::Multicast::Fib::Status>("static");
    std::vector<Handle<LumenRoute>> changed_;
    Handle<NatMrouteSm> sm_;
    Counter counter_;
};

// ---- the floor: the same containers, probed and written as one change must, and nothing else

class Floor {
  public:
    Floor(std::size_t routes, std::size_t requests, const Interfaces& interfaces) {
        for (std::size_t i = 0; i < routes; ++i) {
            const auto flow = flowOf(i);
            routes_->routeIs(IpGenRouteKey::host(flow.sourceIp, flow.groupIp), interfaces.rows[0]);
        }
        for (std::size_t i = 0; i < requests; ++i) {
            const auto key = System::requestOf(i);
            matcher_->add(MrouteSourceAndGroup::of(key), key);
            MrouteIntfAndVlanSet set;
            set.ivIs(MrouteIntfAndVlan::of(key));
            requesters_.is(VrfIdMrouteSourceAndGroup::of(key), set);
        }
        published_->subscribe(&counter_, &Counter::hear);
    }
    ~Floor() { published_->unsubscribe(&counter_, &Counter::hear); }

    void change(std::size_t i, const Interfaces& interfaces, std::size_t which) {
        const NatMrouteKey key = System::requestOf(i);
        const auto sg = MrouteSourceAndGroup::of(key);
        if (!matcher_->matches(sg) || requesters_.find({.vrfId = vrf, .sg = sg}) == nullptr ||
            routes_->routeCollection().find(IpGenRouteKey::host(sg.sourceIp, sg.groupIp)) == nullptr)
            std::abort();
        const NatMrouteOifSet answer(interfaces.sets[which]);
        own_->mrouteRespIs(key, answer);
        published_->mrouteRespIs(key, answer);
    }

  private:
    Handle<Quill::Multicast::Fib::Status> routes_ = makeHandle<Quill::Multicast::Fib::Status>("floor");
    Handle<NatMrouteMatcher> matcher_ = natMrouteMatcherFactory();
    Handle<NatMrouteRouteMap> owner_ = makeHandle<NatMrouteRouteMap>();
    State::MapAttribute<VrfIdMrouteSourceAndGroup, MrouteIntfAndVlanSet> requesters_{*owner_, 9, 550284661U};
    Handle<NatMrouteResponseMap> own_ = makeHandle<NatMrouteResponseMap>("own");
    Handle<NatMrouteResponseMap> published_ = makeHandle<NatMrouteResponseMap>("published");
    Counter counter_;
};

// ---- a walk of a dense table, rows side by side with all that they hold, up to the first match

class DenseWalk {
  public:
    DenseWalk(std::size_t routes, const Interfaces& interfaces) {
        rows_.reserve(routes);
        for (std::size_t i = 0; i < routes; ++i) {
            const auto flow = flowOf(i);
            rows_.emplace_back(IpGenRouteKey::host(flow.sourceIp, flow.groupIp), interfaces.rows[0]);
        }
    }
    std::size_t find(const MrouteSourceAndGroup& flow) const {
        const auto key = IpGenRouteKey::host(flow.sourceIp, flow.groupIp);
        std::size_t at = 0;
        while (at < rows_.size() && rows_[at].key() != key &&
               !(rows_[at].key().source.ipv4().isZero() && rows_[at].key().group.ipv4() == flow.groupIp))
            ++at;
        return at;
    }

  private:
    std::vector<Quill::Multicast::Fib::RouteRow> rows_;
};

} // namespace MrouteSubjects
