// What is compared between the naive model and the plug-in after every operation, in plain types.
#pragma once

#include "tests/model/Ordered.h"
#include "tests/model/PlainTypes.h"

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Model {

/// The three collections of one VRF's matcher.
struct Watched {
    OrderedMap<Address, OrderedSet<RequestKey>> groupsWithAnySource;
    OrderedMap<Address, OrderedSet<RequestKey>> sourcesWithAnyGroup;
    OrderedMap<std::pair<Address, Address>, OrderedSet<RequestKey>> sourceGroups; // by (source, group)
    bool operator==(const Watched&) const = default;
};

using Answers = OrderedMap<RequestKey, Names>;
using Requesters = OrderedMap<Flow, OrderedSet<Requester>>;

/// Collections are in iteration order, which is part of the comparison: it decides which row answers first and which
/// response goes first. The private parts are empty while the plug-in is not there.
struct Observation {
    Answers mrouteAnswers;                             // published
    OrderedMap<std::string, Answers> answersByType;    // private, by route type name
    Requesters mrouteRequesters;                       // of the mroute service
    OrderedMap<std::uint32_t, Watched> watched;        // by VRF identifier
    OrderedMap<std::string, std::uint32_t> vrfIds;     // of the route map
    OrderedMap<TableKey, TableName> routeMap;          // the tables or FIBs of the route map
    OrderedMap<TableKey, std::set<RouteKey>> watchers; // with the routes that a FIB's watcher watches
    std::set<std::string> mounted;                     // paths of route tables and of the shared FIB entities
    OrderedMap<RequestKey, std::uint32_t> groupIds;    // published
    OrderedSet<GroupKey> groupConfig;                  // written by the mgroup service
    Requesters mgroupRequesters;                       // of the mgroup service
    bool mrouteReady = false;
    bool mgroupReady = false;

    /// What the latest operation has made the plug-in say, in order: its trace lines, and between them what the
    /// subscribers of the two response maps, of the route map, of the group configuration and of the ready flags hear.
    std::vector<std::string> said;

    bool operator==(const Observation&) const = default;
};

/// A trace line, as it stands in `said`: "8 handleVrf: NatVrfDirSm::handleVrf vrfName=red".
std::string traceLine(int level, const std::string& function, const std::string& message);

/// What a subscriber hears of a member, as it stands in `said`: "mgroupId KEY = 7"; without a value, that it is gone.
template <class Key>
std::string heard(const char* attribute, const Key& key) {
    return std::string(attribute) + " " + text(key) + " gone";
}
template <class Key, class Value>
std::string heard(const char* attribute, const Key& key, const Value& value) {
    return std::string(attribute) + " " + text(key) + " = " + text(value);
}

/// Names each part in which the two differ, with the members that differ; empty when they are equal.
std::string difference(const Observation& expected, const Observation& actual);

} // namespace Model
