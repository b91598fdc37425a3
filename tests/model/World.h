// What the naive model knows: what outside writers keep, and what it expects to be seen. Plain containers that
// NaiveModel.h changes and that the two naive services read. Read NaiveMroute.h and NaiveMgroup.h next.
#pragma once

#include "tests/model/Observation.h"
#include "tests/model/Ordered.h"
#include "tests/model/PlainTypes.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace Model {

/// An operation ends the plug-in's process, and why.
class Fatal : public std::logic_error {
  public:
    using std::logic_error::logic_error;
};
/// An operation finds nothing to work on.
class Idle : public std::logic_error {
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
    bool hasChip = false;
    std::uint32_t chipGroups = 0; // that the chip has given out
};

struct World {
    explicit World(Source itsSource)
        : source(itsSource) {}

    Source source;
    bool isLoaded = false;      // the plug-in
    bool isMrouteThere = false; // the VRFs are entered before the mroute service is there
    Stores stores;
    Observation seen;

    /// A trace line whose message begins with the name of its function, as most do.
    void trace(int level, const char* function, const std::string& message) {
        seen.said.push_back(traceLine(level, function, function + message));
    }
    /// One whose message does not.
    void detail(int level, const char* function, const std::string& message) {
        seen.said.push_back(traceLine(level, function, message));
    }
    /// Writes a member, of which those hear who subscribed.
    template <class Map, class Key, class Value>
    bool put(const char* attribute, Map& map, const Key& key, const Value& value) {
        const bool isChange = map.put(key, value);
        if (isChange)
            seen.said.push_back(heard(attribute, key, value));
        return isChange;
    }
    template <class Map, class Key>
    bool erase(const char* attribute, Map& map, const Key& key) {
        const bool isChange = map.erase(key);
        if (isChange)
            seen.said.push_back(heard(attribute, key));
        return isChange;
    }
};

} // namespace Model
