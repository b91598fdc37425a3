#include "tests/model/OperationSource.h"

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
constexpr std::uint16_t nullOif = 512; // ends a row's list
constexpr std::size_t requestLevel = 16;
constexpr std::size_t routeLevel = 7;
constexpr std::size_t statusLevel = 10;

} // namespace

Operation OperationSource::draw(const World& world) {
    if (oneIn(world.isLoaded ? 500 : 25))
        return PlugIn{.isLoaded = !world.isLoaded};
    const std::size_t lot = below(1000);
    if (lot < 60)
        return drawVrf(world);
    if (lot < 80)
        return TableIs{.table = anyTable(), .isThere = world.source == Source::quill || !oneIn(3)};
    if (lot < 420)
        return drawRoute(world);
    if (lot < 460)
        return OifRow{anyTable(), static_cast<std::uint16_t>(below(oifIndexes)),
                      oneIn(6) ? std::nullopt : std::optional(oneIn(8) ? "" : oneOf(outgoing))};
    if (lot < 700)
        return drawRequest(Service::mroute, world.stores.mrouteRequests);
    if (lot < 850)
        return drawRequest(Service::mgroup, world.stores.mgroupRequests);
    if (lot < 980)
        return drawGroup(world.stores);
    if (lot < 990)
        return Chip{.isThere = oneIn(2)};
    return EgressFromAllVrfs{.isOn = oneIn(3)};
}

Operation OperationSource::drawVrf(const World& world) {
    const std::string vrf = oneOf(vrfs);
    const bool isOn = world.stores.vrfEnabled.get(vrf);
    switch (below(isOn ? 8 : 4)) {
    case 0:
        return VrfStatus{vrf, oneIn(3) ? std::nullopt : std::optional(oneOf(vrfIds)), false};
    case 1:
        return VrfStatus{vrf, oneOf(vrfIds), oneIn(3)};
    case 2:
        return VrfEnabled{vrf, oneIn(2) ? std::nullopt : std::optional(false)};
    case 3:
        return VrfEnabled{vrf, true};
    default:
        return TableIs{anyTable()};
    }
}

Operation OperationSource::drawRoute(const World& world) {
    const TableName name = anyTable();
    const Table* table = world.stores.tables.find(name);
    if (table == nullptr)
        return TableIs{name};
    // A row that is there is changed or removed more often than chance would have it.
    const bool isThere = !table->routes.empty() && oneIn(2);
    const RouteKey key = isThere ? oneOf(table->routes).first : anyRouteKey();
    const bool goes = enough(table->routes.size(), routeLevel);
    if (world.source == Source::quill)
        return QuillRoute{name, key, goes ? std::nullopt : std::optional(anyOifs())};
    return LumenRoute{name, key, goes ? std::nullopt : std::optional(anyIntfs()),
                      oneIn(4) ? static_cast<std::uint32_t>(below(3)) : 1,
                      oneIn(4) ? (oneIn(2) ? Writing::untold : Writing::replaced) : Writing::told};
}

Operation OperationSource::drawRequest(Service service, const OrderedSet<RequestKey>& present) {
    if (!present.empty() && enough(present.size(), requestLevel))
        return Request{service, oneOf(present), false};
    return Request{service, anyRequest(), true};
}

Operation OperationSource::drawGroup(const Stores& stores) {
    if (!stores.groupStatus.empty() && enough(stores.groupStatus.size(), statusLevel))
        return GroupStatus{oneOf(stores.groupStatus).first, std::nullopt};
    RequestKey request = anyRequest();
    if (!stores.mgroupRequests.empty() && !oneIn(4))
        request = oneOf(stores.mgroupRequests); // a row that somebody asked for
    const GroupKey group = {static_cast<std::uint16_t>(request.vrfId & 0xffffU), request.source,
                            request.group, oneIn(3) ? oneOf(vlans) : request.vlan};
    return GroupStatus{group, static_cast<std::uint32_t>(below(4))};
}

TableName OperationSource::anyTable() {
    return {oneOf(vrfs), oneOf(routeTypes)};
}

RouteKey OperationSource::anyRouteKey() {
    const Prefix source = prefixOf(oneIn(4) ? 0 : oneOf(sources));
    return {source, prefixOf(oneIn(8) ? 0 : oneOf(groups))};
}

Prefix OperationSource::prefixOf(Address address) {
    if ((address & 0xffffU) != 0 || !oneIn(12))
        return {address, 32};
    return {address, static_cast<std::uint8_t>(address == 0 ? 0 : 16)};
}

// In any order, at times with the index in it that ends the list.
std::vector<std::uint16_t> OperationSource::anyOifs() {
    std::vector<std::uint16_t> oifs;
    for (std::uint16_t index = 0; index <= oifIndexes; ++index) {
        if (oneIn(index == oifIndexes ? 8 : 3)) {
            oifs.insert(oifs.begin() + static_cast<std::ptrdiff_t>(below(oifs.size() + 1)),
                        index == oifIndexes ? nullOif : index);
        }
    }
    return oifs;
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
    if (oneIn(4))
        request.source = 0;
    if (oneIn(request.source == 0 ? 40 : 4)) // hardly anything is allowed while somebody asks for everything
        request.group = 0;
    return request;
}

} // namespace Model
