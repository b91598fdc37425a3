// Responses of the mroute service. Two route types contribute to an answer; what each yields is kept in a
// response map of its own, and for every request the published set is the union of the two. It is built anew
// at each write, so that an earlier contribution never lingers.
#include "KestrelNat/KestrelNatMulticastSm/NatMrouteSm.h"
#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"
#include "state/Trace.h"

#include <utility>

TRACE_FACILITY("KestrelNatMulticastSm");

namespace KestrelNat {

void NatMrouteSm::updateMrouteResponseMap(const NatMrouteKey& key, const std::string& routeType,
                                          bool addToResponseMap) {
    const RouteTable table = routeTable({.vrfId = key.vrfId, .routeName = routeType});
    if (!table.quillRoutes && !table.lumenMfib) {
        TRACE(8, "updateMrouteResponseMap", " route not found for vrfId=", key.vrfId,
              " route type=", routeType);
        return;
    }
    if (!addToResponseMap) {
        updateResponseMap({}, key, routeType, true);
        return;
    }
    const NatMrouteOifSet egressIntfs = getEgressIntfsForMrouteKey(key, table.quillRoutes, table.lumenMfib);
    TRACE(8, "updateMrouteResponseMap", " assigning ", egressIntfs, " to key ", key);
    updateResponseMap(egressIntfs, key, routeType, false);
}

void NatMrouteSm::updateResponseMap(const NatMrouteOifSet& egressIntfs, const NatMrouteKey& responseMapKey,
                                    const std::string& routeType, bool removeEmpty) {
    writeResponse(egressIntfs, responsePlace(responseMapKey, routeType), routeType, removeEmpty);
}

NatMrouteSm::TypeMap NatMrouteSm::typeMap(bool isStatic) const {
    if (typeMapsAsOf_ != mrouteResponseMapByRoute_.changes()) {
        typeMaps_ = {mrouteResponseMapByRoute_.find(staticRouteType()),
                     mrouteResponseMapByRoute_.find(sparseRouteType())};
        typeMapsAsOf_ = mrouteResponseMapByRoute_.changes();
    }
    return typeMaps_[isStatic ? 0 : 1];
}

// Begins to load what writeResponse will write, as the table may first be searched for the interfaces.
NatMrouteSm::ResponsePlace NatMrouteSm::responsePlace(const NatMrouteKey& key,
                                                      const std::string& routeType) const {
    const bool isStatic = routeType == staticRouteType();
    const bool isKnown = isStatic || routeType == sparseRouteType();
    const ResponsePlace place{.key = NatMrouteResponseMap::hashed(key),
                              .own = isKnown ? typeMap(isStatic) : mrouteResponseMapByRoute_.find(routeType),
                              .isStatic = isStatic};
    if (place.own != nullptr)
        (*place.own)->mrouteRespCollection().prefetch(place.key);
    if (mrouteResponseMap_)
        mrouteResponseMap_->mrouteRespCollection().prefetch(place.key);
    return place;
}

void NatMrouteSm::writeResponse(const NatMrouteOifSet& egressIntfs, const ResponsePlace& place,
                                const std::string& routeType, bool removeEmpty) {
    const auto& [key, own, isStatic] = place;
    TRACE_AS(8, "updateResponseMap", "updateResponseMap", " responseMapKey=", key.key(),
             " routeType=", routeType);

    // A route update brings its table's own name, and a table need not be named by its route type: then there
    // is no own map, its write is left out, and the other type is the static one.
    if (own == nullptr)
        TRACE_AS(0, "updateResponseMap", "updateResponseMap", " no response map for routeType=", routeType);
    else if (egressIntfs)
        (*own)->mrouteRespCollection().is(key, egressIntfs);
    else
        (*own)->mrouteRespCollection().drop(key);

    const TypeMap other = typeMap(!isStatic);
    if (other == nullptr && !egressIntfs)
        return;
    NatMrouteOifSet answer;
    if (other != nullptr && (*other)->mrouteRespCollection().size() != 0) {
        if (const NatMrouteOifSet* theirs = (*other)->mrouteRespCollection().find(key))
            answer = *theirs;
    }
    answer.oifIs(egressIntfs);
    publishResponse(key, std::move(answer), removeEmpty);
}

void NatMrouteSm::publishResponse(const State::HashedKey<NatMrouteKey>& key, NatMrouteOifSet answer,
                                  bool removeEmpty) {
    if (!mrouteResponseMap_)
        return;
    if (!answer && removeEmpty)
        mrouteResponseMap_->mrouteRespCollection().drop(key);
    else
        mrouteResponseMap_->mrouteRespCollection().is(key, std::move(answer));
}

// All answers of the VRF go, from the published map and from both private ones, though one of its tables
// went. This is meant: the requests stay and are answered again when a table of that VRF comes.
void NatMrouteSm::handleDeletion(const NatMcastRouteKey& routeKey) {
    TRACE(8, "handleDeletion", " key=", routeKey);
    TRACE(8, "handleDeletion", " deleting mrouteResponseMap");
    const L3::VrfId vrfId = routeKey.vrfId;
    deleteMrouteResponsesWithVrfId(mrouteResponseMap_, vrfId);
    for (const std::string& routeType : routeTypes()) {
        TRACE(8, "handleDeletion", " deleting mrouteResponseMapByRoute[ ", routeType, " ]");
        deleteMrouteResponsesWithVrfId(mrouteResponseMapByRoute(routeType), vrfId);
    }
}

void deleteMrouteResponsesWithVrfId(const State::Handle<NatMrouteResponseMap>& map, L3::VrfId vrfId) {
    if (!map)
        return;
    for (const auto& member : map->mrouteResp()) {
        if (member.key.vrfId == vrfId) {
            TRACE(8, "deleteMrouteResponsesWithVrfId", " removing resp=", member.value);
            map->mrouteRespDel(NatMrouteKey(member.key));
        }
    }
}

} // namespace KestrelNat
