#include "tests/model/Guards.h"

#include <algorithm>

namespace Model {

namespace {

constexpr std::uint32_t greatestVrfId = 0x00ffffff;
constexpr std::uint16_t nullOif = 512;

bool identified(const std::string& vrf, std::uint32_t vrfId) {
    return vrfId != 0 || vrf == "default";
}

bool enabled(const Stores& stores, const std::string& vrf) {
    return stores.vrfEnabled.get(vrf);
}

bool addedVrf(const Stores& stores, const std::string& vrf) {
    const std::uint32_t* vrfId = stores.vrfStatus.find(vrf);
    return enabled(stores, vrf) && vrfId != nullptr && identified(vrf, *vrfId);
}

bool hasBothTables(const Stores& stores, const std::string& vrf) {
    return stores.tables.has({vrf, RouteType::plain}) && stores.tables.has({vrf, RouteType::sparse});
}

// A VRF that comes while answers are gathered from all VRFs has, for a moment, one of its two tables.
bool mayAddVrf(const Stores& stores) {
    return !stores.egressFromAllVrfs || stores.mrouteRequests.empty();
}

bool vrfIdIsFree(const Stores& stores, const std::string& vrf, std::uint32_t vrfId) {
    return !identified(vrf, vrfId) ||
           std::none_of(stores.vrfStatus.begin(), stores.vrfStatus.end(), [&](const auto& member) {
               return member.first != vrf && member.second == vrfId && identified(member.first, vrfId);
           });
}

bool vrfStatusAllowed(const Operation& op, const Stores& stores) {
    if (op.vrf.empty() || op.vrfId > greatestVrfId || !vrfIdIsFree(stores, op.vrf, op.vrfId))
        return false;
    if (addedVrf(stores, op.vrf))
        return op.kind == Kind::vrfStatusIs && stores.vrfStatus.at(op.vrf) == op.vrfId;
    const bool adds = enabled(stores, op.vrf) && identified(op.vrf, op.vrfId);
    if (op.kind == Kind::vrfStatusReplaced)
        return stores.vrfStatus.has(op.vrf) && !adds; // it would be added twice
    return !adds || mayAddVrf(stores);
}

bool vrfEnabledAllowed(const Operation& op, const Stores& stores) {
    if (!op.flag || enabled(stores, op.vrf))
        return true;
    return hasBothTables(stores, op.vrf) && mayAddVrf(stores);
}

bool allVrfsAllowed(const Stores& stores) {
    return std::all_of(stores.vrfEnabled.begin(), stores.vrfEnabled.end(), [&stores](const auto& member) {
        return !member.second || hasBothTables(stores, member.first);
    });
}

bool requestAllowed(const RequestKey& request, const OrderedSet<RequestKey>& requests) {
    if (request.intf.empty() || request.vlan == 0 || request.vrfId > greatestVrfId ||
        (request.source == 0 && request.group == 0))
        return false;
    return std::none_of(requests.begin(), requests.end(), [&request](RequestKey present) {
        const bool sameType = present.type == request.type;
        present.type = request.type;
        return present == request && !sameType;
    });
}

bool oifsAllowed(const std::vector<std::uint16_t>& oifs) {
    return std::all_of(oifs.begin(), oifs.end(), [](std::uint16_t oif) { return oif < nullOif; });
}

bool hasRoute(const Stores& stores, const TableName& table, const RouteKey& route) {
    return stores.tables.has(table) && stores.tables.at(table).routes.has(route);
}

} // namespace

bool allowed(const Operation& op, const NaiveModel& model) {
    const Stores& stores = model.stores();
    const bool quill = model.source() == Source::quill;
    switch (op.kind) {
    case Kind::start:
        return !model.started();
    case Kind::stop:
        return model.started();
    case Kind::vrfStatusIs:
    case Kind::vrfStatusReplaced:
        return vrfStatusAllowed(op, stores);
    case Kind::vrfStatusDel:
        return !addedVrf(stores, op.vrf);
    case Kind::vrfEnabledIs:
        return vrfEnabledAllowed(op, stores);
    case Kind::vrfEnabledDel:
    case Kind::groupStatusIs:
    case Kind::groupStatusDel:
    case Kind::mrouteRequestDel:
    case Kind::mgroupRequestDel:
        return true;
    case Kind::tableIs:
        return !op.table.vrf.empty();
    case Kind::tableDel:
        return !quill && !enabled(stores, op.table.vrf);
    case Kind::quillRouteIs:
        return quill && stores.tables.has(op.table) && oifsAllowed(op.oifs);
    case Kind::oifIndexIntfIs:
    case Kind::oifIndexIntfDel:
        return quill && stores.tables.has(op.table) && op.index < nullOif;
    case Kind::lumenRouteIs:
        return !quill && stores.tables.has(op.table);
    case Kind::lumenRouteUntold:
    case Kind::lumenRouteReplaced:
        return !quill && hasRoute(stores, op.table, op.route);
    case Kind::routeDel:
        return stores.tables.has(op.table);
    case Kind::mrouteRequestIs:
        return requestAllowed(op.request, stores.mrouteRequests);
    case Kind::mgroupRequestIs:
        return requestAllowed(op.request, stores.mgroupRequests);
    case Kind::egressFromAllVrfsIs:
        return !op.flag || allVrfsAllowed(stores);
    }
    return false;
}

} // namespace Model
