#include "tests/model/PlainTypes.h"

namespace Model {

std::string routeTypeName(Source source, RouteType type) {
    if (type == RouteType::sparse)
        return "sparsemode";
    return source == Source::lumen ? "user" : "static";
}

std::string mountPath(Source source, const TableName& table) {
    return source == Source::lumen
               ? "lumen/multicast/fib/ipv4/" + routeTypeName(source, table.type)
               : "routing/multicast/routestatus/" + table.vrf + "/" + routeTypeName(source, table.type);
}

std::string dotted(Address address) {
    return std::to_string(address >> 24U) + "." + std::to_string(address >> 16U & 0xffU) + "." +
           std::to_string(address >> 8U & 0xffU) + "." + std::to_string(address & 0xffU);
}

std::string text(bool value) {
    return value ? "true" : "false";
}

std::string text(std::uint32_t value) {
    return std::to_string(value);
}

std::string text(const std::string& value) {
    return value;
}

std::string text(const Names& names) {
    std::string result = "NatMrouteOifSet {";
    for (const std::string& name : names)
        result += name + ", ";
    return result + "}";
}

std::string text(const Prefix& prefix) {
    return dotted(prefix.address) + "/" + std::to_string(prefix.length);
}

std::string text(const RouteKey& key) {
    return "Routing::Multicast::Fib::IpGenRouteKey(source=" + text(key.source) +
           ", group=" + text(key.group) + ")";
}

std::string text(const RequestKey& key) {
    return "NatMrouteKey (I=" + key.intf + ", vrfId=" + std::to_string(key.vrfId) +
           ", V=" + std::to_string(key.vlan) + ", S=" + dotted(key.source) + ", G=" + dotted(key.group) +
           "), type=" + (key.type == 0 ? "mrouteRequest" : "mgroupRequest");
}

std::string text(const Flow& flow) {
    return "vrf " + std::to_string(flow.vrfId) + " (" + dotted(flow.source) + ", " + dotted(flow.group) + ")";
}

std::string text(const Requester& requester) {
    return requester.intf + " vlan " + std::to_string(requester.vlan);
}

std::string text(const GroupKey& key) {
    return "[vrf " + std::to_string(key.vrfId) + " " + dotted(key.source) + " " + dotted(key.group) +
           " vlan " + std::to_string(key.vlan) + "]";
}

std::string text(const TableName& name) {
    return name.vrf + "/" + (name.type == RouteType::plain ? "static" : "sparse");
}

std::string text(const TableKey& key) {
    return "KestrelNat::NatMcastRouteKey(vrfId=" + std::to_string(key.vrfId) + ", routeName=\"" + key.type +
           "\")";
}

} // namespace Model
