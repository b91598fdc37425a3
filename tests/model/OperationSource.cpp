#include "tests/model/OperationSource.h"

#include "tests/model/Guards.h"

#include <string>

namespace Model {

namespace {

const std::string vrfs[] = {"default", "red", "green", "blue"};
// Two of them agree in their low 16 bits, which is all that the group tables keep.
constexpr std::uint32_t vrfIds[] = {0, 1, 2, 0x10001, 0xffffff};
const std::string outgoing[] = {"Ethernet1", "Ethernet2", "Ethernet3", "Vlan10"};
const std::string requesting[] = {"Ethernet1", "Ethernet7", "Port-Channel9"};
constexpr std::uint16_t vlans[] = {10, 4094};
// Those that end in zeros can carry a shorter prefix without losing bits.
constexpr Address sources[] = {0x0a010000, 0x0a020000, 0x0a030001};
constexpr Address groups[] = {0xef010000, 0xef020000, 0xe8010101};
constexpr std::uint16_t oifIndexes = 5;
constexpr std::size_t requestLevel = 16;
constexpr std::size_t routeLevel = 7;
constexpr std::size_t statusLevel = 10;

} // namespace

Operation OperationSource::draw(const NaiveModel& model) {
    for (;;) {
        Operation operation = drawAny(model);
        if (allowed(operation, model))
            return operation;
    }
}

Operation OperationSource::drawAny(const NaiveModel& model) {
    if (!model.started() && oneIn(25))
        return {.kind = Kind::start};
    if (model.started() && oneIn(500))
        return {.kind = Kind::stop};
    const Stores& stores = model.stores();
    const std::size_t lot = below(100);
    if (lot < 5)
        return drawVrf();
    if (lot < 8)
        return drawTable(model);
    if (lot < 40)
        return drawRoute(model);
    if (lot < 46)
        return drawOif();
    if (lot < 70)
        return drawRequest(stores.mrouteRequests, Kind::mrouteRequestIs, Kind::mrouteRequestDel);
    if (lot < 85)
        return drawRequest(stores.mgroupRequests, Kind::mgroupRequestIs, Kind::mgroupRequestDel);
    if (lot < 99)
        return drawGroup(model);
    return {.kind = Kind::egressFromAllVrfsIs, .flag = oneIn(3)};
}

Operation OperationSource::drawVrf() {
    const std::string vrf = oneOf(vrfs);
    switch (below(6)) {
    case 0:
        return {.kind = oneIn(3) ? Kind::vrfStatusReplaced : Kind::vrfStatusIs,
                .vrf = vrf,
                .vrfId = oneOf(vrfIds)};
    case 1:
        return oneIn(3) ? Operation{.kind = Kind::vrfStatusDel, .vrf = vrf}
                        : Operation{.kind = Kind::vrfStatusIs, .vrf = vrf, .vrfId = oneOf(vrfIds)};
    case 2:
        return oneIn(2) ? Operation{.kind = Kind::vrfEnabledDel, .vrf = vrf}
                        : Operation{.kind = Kind::vrfEnabledIs, .vrf = vrf, .flag = false};
    default:
        return {.kind = Kind::vrfEnabledIs, .vrf = vrf, .flag = true};
    }
}

Operation OperationSource::drawTable(const NaiveModel& model) {
    const bool remove = model.source() == Source::lumen && oneIn(3);
    return {.kind = remove ? Kind::tableDel : Kind::tableIs, .table = anyTable()};
}

Operation OperationSource::drawRoute(const NaiveModel& model) {
    Operation operation = {.kind = Kind::routeDel, .table = anyTable(), .route = anyRouteKey()};
    const Table* table = model.stores().tables.find(operation.table);
    if (table == nullptr)
        return {.kind = Kind::tableIs, .table = operation.table};
    // A row that is there is changed or removed more often than chance would have it.
    const bool present = !table->routes.empty() && oneIn(2);
    if (present)
        operation.route = oneOf(table->routes).first;
    if (enough(table->routes.size(), routeLevel))
        return operation;
    if (model.source() == Source::quill) {
        operation.kind = Kind::quillRouteIs;
        for (std::uint16_t index = 0; index < oifIndexes; ++index) {
            if (oneIn(3)) {
                operation.oifs.insert(operation.oifs.begin() + (oneIn(2) ? 0 : std::ssize(operation.oifs)),
                                      index);
            }
        }
        return operation;
    }
    operation.kind = Kind::lumenRouteIs;
    if (present && oneIn(4))
        operation.kind = oneIn(2) ? Kind::lumenRouteUntold : Kind::lumenRouteReplaced;
    operation.intfs = anyIntfs();
    operation.ready = oneIn(4) ? static_cast<std::uint32_t>(below(3)) : 1;
    return operation;
}

Operation OperationSource::drawOif() {
    Operation operation = {.kind = Kind::oifIndexIntfIs,
                           .table = anyTable(),
                           .index = static_cast<std::uint16_t>(below(oifIndexes)),
                           .intf = oneOf(outgoing)};
    if (oneIn(6))
        operation.kind = Kind::oifIndexIntfDel;
    else if (oneIn(8))
        operation.intf.clear();
    return operation;
}

Operation OperationSource::drawRequest(const OrderedSet<RequestKey>& present, Kind is, Kind del) {
    if (!present.empty() && enough(present.size(), requestLevel))
        return {.kind = del, .request = oneOf(present)};
    return {.kind = is, .request = anyRequest()};
}

Operation OperationSource::drawGroup(const NaiveModel& model) {
    const auto& status = model.stores().groupStatus;
    if (!status.empty() && enough(status.size(), statusLevel))
        return {.kind = Kind::groupStatusDel, .group = oneOf(status).first};
    RequestKey request = anyRequest();
    if (!model.stores().mgroupRequests.empty() && !oneIn(4))
        request = oneOf(model.stores().mgroupRequests); // a row that somebody asked for
    const GroupKey group = {static_cast<std::uint16_t>(request.vrfId & 0xffffU), request.source,
                            request.group, oneIn(3) ? oneOf(vlans) : request.vlan};
    return {.kind = Kind::groupStatusIs, .group = group, .groupId = static_cast<std::uint32_t>(below(4))};
}

TableName OperationSource::anyTable() {
    return {oneOf(vrfs), oneOf(routeTypes)};
}

RouteKey OperationSource::anyRouteKey() {
    const Prefix source = prefixOf(oneIn(4) ? 0 : oneOf(sources));
    return {source, prefixOf(oneIn(16) ? 0 : oneOf(groups))};
}

Prefix OperationSource::prefixOf(Address address) {
    if ((address & 0xffffU) != 0 || !oneIn(12))
        return {address, 32};
    return {address, static_cast<std::uint8_t>(address == 0 ? 0 : 16)};
}

Names OperationSource::anyIntfs() {
    Names names;
    for (const std::string& name : outgoing)
        if (oneIn(3))
            names.insert(name);
    if (oneIn(10))
        names.insert("");
    return names;
}

RequestKey OperationSource::anyRequest() {
    RequestKey request = {.intf = oneOf(requesting),
                          .vrfId = oneOf(vrfIds),
                          .vlan = oneOf(vlans),
                          .source = oneOf(sources),
                          .group = oneOf(groups),
                          .type = static_cast<std::uint8_t>(oneIn(3) ? 1 : 0)};
    switch (below(5)) {
    case 0:
        request.source = 0;
        break;
    case 1:
        request.group = 0;
        break;
    default:
        break;
    }
    return request;
}

} // namespace Model
