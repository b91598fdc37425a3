// The model's own keys and values: plain numbers and strings that share no code with the product's types, and
// their text, as the plug-in's traces have it. Addresses are IPv4 addresses as host-order numbers; 0 is the
// wildcard. Read Operation.h and Observation.h next, then NaiveModel.h.
#pragma once

#include <compare>
#include <cstdint>
#include <set>
#include <string>

namespace Model {

using Address = std::uint32_t;
using Names = std::set<std::string>; // interfaces by name; the empty name is no interface

/// Where the process takes its multicast routes from.
enum class Source { quill, lumen };

enum class Service { mroute, mgroup };

/// The two route types of a VRF, in the order in which they are visited.
enum class RouteType { plain, sparse };
constexpr RouteType routeTypes[] = {RouteType::plain, RouteType::sparse};

struct Prefix {
    Address address = 0;
    std::uint8_t length = 32;
    auto operator<=>(const Prefix&) const = default;
};

struct RouteKey {
    Prefix source;
    Prefix group;
    auto operator<=>(const RouteKey&) const = default;
};

/// A request of either service, and the key of its answer.
struct RequestKey {
    std::string intf;
    std::uint32_t vrfId = 0;
    std::uint16_t vlan = 0;
    Address source = 0;
    Address group = 0;
    std::uint8_t type = 0;
    auto operator<=>(const RequestKey&) const = default;
};

/// A (source, group) pair within a VRF.
struct Flow {
    std::uint32_t vrfId = 0;
    Address source = 0;
    Address group = 0;
    auto operator<=>(const Flow&) const = default;
};

/// Who asks for a flow.
struct Requester {
    std::string intf;
    std::uint16_t vlan = 0;
    auto operator<=>(const Requester&) const = default;
};

/// Key of the hardware group tables; the VRF identifier is cut to 16 bits.
struct GroupKey {
    std::uint16_t vrfId = 0;
    Address source = 0;
    Address group = 0;
    std::uint16_t vlan = 0;
    auto operator<=>(const GroupKey&) const = default;
};

/// A route table or FIB as its owner names it.
struct TableName {
    std::string vrf;
    RouteType type = RouteType::plain;
    auto operator<=>(const TableName&) const = default;
};

/// A route table as the route map names it.
struct TableKey {
    std::uint32_t vrfId = 0;
    std::string type;
    auto operator<=>(const TableKey&) const = default;
};

/// The name of a route type: "static" or "user", depending on the source, and "sparsemode".
std::string routeTypeName(Source source, RouteType type);
/// Where the plug-in mounts what holds the table: the two paths of the Lumen source are all VRFs'.
std::string mountPath(Source source, const TableName& table);

std::string dotted(Address address);
std::string text(bool value);
std::string text(std::uint32_t value);
std::string text(const std::string& value);
std::string text(const Names& names);
std::string text(const Prefix& prefix);
std::string text(const RouteKey& key);
std::string text(const RequestKey& key);
std::string text(const Flow& flow);
std::string text(const Requester& requester);
std::string text(const GroupKey& key);
std::string text(const TableName& name);
std::string text(const TableKey& key);

} // namespace Model
