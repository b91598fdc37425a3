// What outside writers keep, as the naive model sees it: plain containers that only the events of
// NaiveModel.h change and that the two naive services read. Read NaiveMroute.h and NaiveMgroup.h next.
#pragma once

#include "tests/model/Ordered.h"
#include "tests/model/PlainTypes.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace Model {

/// A place at which the plug-in would end the process. Operations that the guards allow never come here.
class Fatal : public std::logic_error {
  public:
    using std::logic_error::logic_error;
};

/// A row of a route table or a route of a FIB; each source uses its own fields.
struct Route {
    std::vector<std::uint16_t> oifs; // Quill: outgoing-interface indexes
    Names intfs;                     // Lumen: outgoing interfaces
    std::uint32_t ready = 1;         // Lumen: 1 is ready
    bool operator==(const Route&) const = default;
};

struct Table {
    OrderedMap<RouteKey, Route> routes; // in order of arrival
    OrderedMap<std::uint16_t, std::string> oifIndexIntf;
    bool operator==(const Table&) const = default;
};

/// The keys of a table's rows in table order: those with a source first, then those without, each in order of
/// arrival.
inline std::vector<RouteKey> tableOrder(const Table& table) {
    std::vector<RouteKey> keys;
    for (const bool withSource : {true, false}) {
        for (const auto& [key, route] : table.routes)
            if ((key.source.address != 0) == withSource)
                keys.push_back(key);
    }
    return keys;
}

struct Stores {
    OrderedMap<std::string, std::uint32_t> vrfStatus;
    OrderedMap<std::string, bool> vrfEnabled;
    OrderedMap<TableName, Table> tables;
    OrderedSet<RequestKey> mrouteRequests;
    OrderedSet<RequestKey> mgroupRequests;
    OrderedMap<GroupKey, std::uint32_t> groupStatus;
    bool egressFromAllVrfs = false;
};

} // namespace Model
