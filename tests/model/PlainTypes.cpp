#include "tests/model/PlainTypes.h"

namespace Model {

namespace {

std::string text(const Prefix& prefix) {
    return dotted(prefix.address) + "/" + std::to_string(prefix.length);
}

} // namespace

std::string routeTypeName(Source source, RouteType type) {
    if (type == RouteType::sparse)
        return "sparsemode";
    return source == Source::lumen ? "user" : "static";
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
    return value.empty() ? "\"\"" : value;
}

std::string text(const Names& names) {
    std::string result = "{";
    for (const std::string& name : names)
        result += (result.size() > 1 ? " " : "") + text(name);
    return result + "}";
}

std::string text(const RouteKey& key) {
    return "(" + text(key.source) + ", " + text(key.group) + ")";
}

std::string text(const RequestKey& key) {
    return "[" + key.intf + " vlan " + std::to_string(key.vlan) + " vrf " + std::to_string(key.vrfId) + " " +
           dotted(key.source) + " " + dotted(key.group) + " type " + std::to_string(key.type) + "]";
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
    return std::to_string(key.vrfId) + "/" + key.type;
}

} // namespace Model
