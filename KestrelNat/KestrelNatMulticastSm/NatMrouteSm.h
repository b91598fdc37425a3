// KestrelNat::NatMrouteSm: answers through which interfaces a multicast flow leaves. It keeps one answer per
// request, the union over the VRF's static and sparse route table, current while requests, routes and tables
// change. Made by the mounter (NatMulticastMounter.h) after its mounts; it writes the published answers and
// its ready flag, no more.
//
// The road of a request: handleMrouteReq (NatMrouteRequests.cpp) records who asks, getEgressIntfsForMrouteKey
// (NatMrouteEgress.cpp) resolves it against a table, updateResponseMap (NatMrouteResponses.cpp) publishes.
// The road of a route: a watcher of its table (McastRouteSm.h, McastMfibSm.h) calls handleMcastRouteUpdate
// (NatMrouteUpdates.cpp), which answers the requests concerned again. NatMrouteSm.cpp assembles all that.
//
// Whoever hears of an answer may change requests, routes and tables on the spot; the nested delivery is
// handled at once. A handler holds handles to, or copies of, what it walks, and does not check again
// afterwards: one that finds, in its next step, that the table or the requesters it works for are gone
// reaches a fatal assertion.
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMrouteMatcher.h"
#include "KestrelNat/KestrelNatMulticastSm/NatMrouteRouteMap.h"
#include "KestrelNat/KestrelNatMulticastSm/NatMulticastKeys.h"
#include "records/NatMroute.h"
#include "records/NatStatus.h"
#include "state/Collection.h"
#include "state/StateMachine.h"

#include <array>
#include <cstdint>
#include <string>

namespace KestrelNat {

class NatMrouteSm final : public State::StateMachine {
  public:
    class McastRouteSm; // McastRouteSm.h
    class McastMfibSm;  // McastMfibSm.h

    using QuillRoutes = State::Handle<const Quill::Multicast::Fib::Status>;
    using LumenMfib = State::Handle<const Lumen::Multicast::Fib::Status>;
    using IpGenRouteKey = Routing::Multicast::Fib::IpGenRouteKey;

    /// Makes the state machine, which answers every request that is there, and switches notification on.
    /// Inputs may be null: a null collection reads as empty, what would be written to a null output is
    /// dropped, without a route map there are no routes. RangeError from a route with an invalid interface
    /// index; nothing stays registered then.
    static State::Handle<NatMrouteSm> NatMrouteSmIs(State::Handle<const NatMrouteRequestSet> mrouteRequestSet,
                                                    State::Handle<NatMrouteResponseMap> mrouteResponseMap,
                                                    State::Handle<MulticastSmStatus> multicastSmStatus,
                                                    State::Handle<const NatMrouteRouteMap> mrouteRouteMap,
                                                    State::Handle<const CapabilityConfig> capabilityConfig);
    /// Retires the watchers, which deletes the answers of their tables' VRFs.
    ~NatMrouteSm() override;

    /// Turns all reactors, those of the watchers too, on or off; changes that come while they are off are
    /// lost.
    void hasNotificationActiveIs(bool active);
    /// Makes the private response maps, one per route type.
    void handleInitialized();
    void mrouteRequestSetDispatch(const State::Notification& change);
    void mrouteRouteMapDispatch(const State::Notification& change);

    // ---- requests

    /// Brings records and answer in line with the presence of the request; fatal unless it names an interface
    /// and a VLAN.
    void handleMrouteReq(const NatMrouteKey& req);
    /// The same for every request that is there; reports the service ready afterwards.
    void handleMrouteReq();

    // ---- egress interfaces

    /// The interfaces through which the request's flow leaves by one route table: `quillRoutes` or
    /// `lumenMfib`, of which exactly one is set. Where the configuration says so, by all tables of all VRFs
    /// instead.
    NatMrouteOifSet getEgressIntfsForMrouteKey(const NatMrouteKey& reqKey, const QuillRoutes& quillRoutes,
                                               const LumenMfib& lumenMfib) const;
    NatMrouteOifSet getEgressIntfsFromAllVrfs(const NatMrouteKey& reqKey) const;

    // ---- responses

    /// Answers the request by the table of its VRF and `routeType`, or (`addToResponseMap` false) deletes its
    /// answer. Without such a table nothing is written.
    void updateMrouteResponseMap(const NatMrouteKey& key, const std::string& routeType,
                                 bool addToResponseMap);
    /// Records what one route type yields for a request and publishes the union of both types. If that is
    /// empty, the published answer goes (`removeEmpty`, a route update) or is the empty set (a request pass).
    /// Both are meant.
    void updateResponseMap(const NatMrouteOifSet& egressIntfs, const NatMrouteKey& responseMapKey,
                           const std::string& routeType, bool removeEmpty);
    /// Deletes all answers of the VRF, whichever of its tables went.
    void handleDeletion(const NatMcastRouteKey& routeKey);

    // ---- route updates

    /// Answers again every request that the route concerns, in the table named by `natMcastKey`, which must be
    /// in the route map.
    void handleMcastRouteUpdate(const IpGenRouteKey& routeKey, const NatMcastRouteKey& natMcastKey);
    /// Answers all requests, then does the same for every route of the table.
    void handleMcastRouteUpdateAll(const NatMcastRouteKey& natMcastKey);
    /// The VRF's matcher, made where there is none.
    State::Handle<NatMrouteMatcher> watchedMroutesWrap(L3::VrfId vrfId);
    /// Takes a request from the VRF's matcher, and the matcher away when it is empty. Nothing without a
    /// matcher.
    void removeWatchedMroute(L3::VrfId vrfId, const MrouteSourceAndGroup& sg, const NatMrouteKey& key);

    // ---- watchers, one per route table of the route map; null removes without retiring

    void mcastRouteIs(const NatMcastRouteKey& key, const QuillRoutes& table);
    /// Removes and retires the watcher, which deletes the VRF's answers; the table it watched, null when
    /// absent.
    QuillRoutes mcastRouteDel(const NatMcastRouteKey& key);
    void mcastRouteDelAll();
    State::Handle<McastRouteSm> mcastRoute(const NatMcastRouteKey& key) const;
    const auto& mcastRouteCollection() const { return mcastRoute_; }
    static constexpr State::AttributeId mcastRouteAttribute = 5;

    void mfibAppIs(const NatMcastRouteKey& key, const LumenMfib& mfib);
    LumenMfib mfibAppDel(const NatMcastRouteKey& key);
    void mfibAppDelAll();
    State::Handle<McastMfibSm> mfibApp(const NatMcastRouteKey& key) const;
    const auto& mfibAppCollection() const { return mfibApp_; }
    static constexpr State::AttributeId mfibAppAttribute = 6;

    // ---- inputs and outputs

    const State::Handle<const NatMrouteRequestSet>& mrouteRequestSet() const { return mrouteRequestSet_; }
    const State::Handle<NatMrouteResponseMap>& mrouteResponseMap() const { return mrouteResponseMap_; }
    const State::Handle<MulticastSmStatus>& multicastSmStatus() const { return multicastSmStatus_; }
    const State::Handle<const NatMrouteRouteMap>& mrouteRouteMap() const { return mrouteRouteMap_; }
    const State::Handle<const CapabilityConfig>& capabilityConfig() const { return capabilityConfig_; }

  private:
    // The table that the route map holds under a key, from whichever source has it.
    struct RouteTable {
        QuillRoutes quillRoutes;
        LumenMfib lumenMfib;

        /// Its own name, which route updates take for its route type; whoever makes tables names them so.
        const std::string& name() const { return lumenMfib ? lumenMfib->name() : quillRoutes->tableName(); }
    };

    // A private response map in its collection, null if there is none.
    using TypeMap = const State::Handle<NatMrouteResponseMap>*;
    // Where the answer to a request is written: its key, and the map of the route type.
    struct ResponsePlace {
        State::HashedKey<NatMrouteKey> key;
        TypeMap own;
        bool isStatic; // by the static route type
    };

    // The flows that one route concerns, at most three, and who asks for the first: of the others the record may
    // say something else by the time they are answered.
    class Flows {
      public:
        void append(const VrfIdMrouteSourceAndGroup& vsg, const MrouteIntfAndVlanSet* requesters) {
            firstRequesters_ = count_ == 0 ? requesters : firstRequesters_;
            flows_[count_++] = vsg;
        }
        bool empty() const { return count_ == 0; }
        const VrfIdMrouteSourceAndGroup* begin() const { return flows_.data(); }
        const VrfIdMrouteSourceAndGroup* end() const { return flows_.data() + count_; }
        const MrouteIntfAndVlanSet* firstRequesters() const { return firstRequesters_; }

      private:
        std::array<VrfIdMrouteSourceAndGroup, 3> flows_;
        const MrouteIntfAndVlanSet* firstRequesters_ = nullptr;
        std::uint32_t count_ = 0;
    };

    NatMrouteSm(State::Handle<const NatMrouteRequestSet> mrouteRequestSet,
                State::Handle<NatMrouteResponseMap> mrouteResponseMap,
                State::Handle<MulticastSmStatus> multicastSmStatus,
                State::Handle<const NatMrouteRouteMap> mrouteRouteMap,
                State::Handle<const CapabilityConfig> capabilityConfig);

    template <class Watcher, class Table>
    void watcherIs(State::MapAttribute<NatMcastRouteKey, State::Handle<Watcher>>& watchers,
                   const NatMcastRouteKey& key, const State::Handle<const Table>& table);
    template <class Watcher>
    auto watcherDel(State::MapAttribute<NatMcastRouteKey, State::Handle<Watcher>>& watchers,
                    const NatMcastRouteKey& key);
    void watchPresentTables();
    void retire();
    TypeMap typeMap(bool isStatic) const;
    ResponsePlace responsePlace(const NatMrouteKey& key, const std::string& routeType) const;
    void writeResponse(const NatMrouteOifSet& egressIntfs, const ResponsePlace& place,
                       const std::string& routeType, bool removeEmpty);
    void publishResponse(const State::HashedKey<NatMrouteKey>& key, NatMrouteOifSet answer, bool removeEmpty);
    RouteTable routeTable(const NatMcastRouteKey& key) const;
    Flows concernedFlows(L3::VrfId vrfId, const MrouteSourceAndGroup& sg,
                         NatMrouteMatcher::Waiting waiting) const;
    void answerRequester(const VrfIdMrouteSourceAndGroup& vsg, const MrouteIntfAndVlan& requester,
                         const RouteTable& table);

    // In attribute order; they go in the reverse order.
    State::Handle<const NatMrouteRequestSet> mrouteRequestSet_;
    State::Handle<NatMrouteResponseMap> mrouteResponseMap_;
    // What each route type yields, by route type; a map holds a key with a non-empty set only.
    STATE_MAP(2, mrouteResponseMapByRoute, std::string, State::Handle<NatMrouteResponseMap>,
              State::seedConstant("KestrelNat::NatMrouteSm::mrouteResponseMapByRoute"))
  private:
    // The two that every answer asks for, as of a change of the collection: static, sparse.
    mutable std::array<TypeMap, 2> typeMaps_{};
    mutable std::uint32_t typeMapsAsOf_ = 0;
    State::Handle<MulticastSmStatus> multicastSmStatus_;
    State::Handle<const NatMrouteRouteMap> mrouteRouteMap_;
    State::MapAttribute<NatMcastRouteKey, State::Handle<McastRouteSm>> mcastRoute_;
    State::MapAttribute<NatMcastRouteKey, State::Handle<McastMfibSm>> mfibApp_;
    State::Handle<const CapabilityConfig> capabilityConfig_;
    // Who asks for a (VRF, source, group), by interface and VLAN, and which requests of a VRF wait on which
    // routes. handleMrouteReq keeps the two in step; a route update that finds one without the other is
    // fatal. No member holds an empty set.
    STATE_MAP(8, vrfIdSourceAndGroupToIntf, VrfIdMrouteSourceAndGroup, MrouteIntfAndVlanSet, 550284661U)
    STATE_MAP(9, watchedMroutes, L3::VrfId, State::Handle<NatMrouteMatcher>, 1273791958U)

  private:
    // Last, so that they detach first, whatever ends the object.
    State::Reactor requestReactor_;
    State::Reactor routeMapReactor_;
};

/// Adds to `egressIntfs` the interfaces through which the request's flow leaves by one route table: by the
/// first route that matches, in table order, or by all of them where the request names any source or any
/// group. Fatal unless exactly one table is set and the request names a source or a group. RangeError from an
/// invalid interface index.
void getEgressIntfsFromCurrentVrf(const NatMrouteKey& reqKey, const NatMrouteSm::QuillRoutes& quillRoutes,
                                  const NatMrouteSm::LumenMfib& lumenMfib, NatMrouteOifSet& egressIntfs);

/// Deletes the VRF's answers from a response map, which may be null.
void deleteMrouteResponsesWithVrfId(const State::Handle<NatMrouteResponseMap>& map, L3::VrfId vrfId);

/// The same as NatMrouteSm::NatMrouteSmIs; registered for creation by type name.
State::Handle<NatMrouteSm> natMrouteSmFactory(State::Handle<const NatMrouteRequestSet> mrouteRequestSet,
                                              State::Handle<NatMrouteResponseMap> mrouteResponseMap,
                                              State::Handle<MulticastSmStatus> multicastSmStatus,
                                              State::Handle<const NatMrouteRouteMap> mrouteRouteMap,
                                              State::Handle<const CapabilityConfig> capabilityConfig);

} // namespace KestrelNat
