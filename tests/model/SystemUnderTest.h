// What the model test does to a system and what it sees of it, in plain types. NaiveModel.h is one such
// system, the plug-in behind ProductUnderTest.h the other; ModelDriver.h does the same to both and compares
// after every operation.
#pragma once

#include "tests/model/Ordered.h"
#include "tests/model/PlainTypes.h"

#include <cstdint>
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

/// Everything that is compared. Collections are in iteration order, which is part of the comparison: it
/// decides which row answers first and which response goes first. The private parts are empty while the
/// plug-in is not there.
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

    bool operator==(const Observation&) const = default;
};

/// Names each part in which the two differ, with the members that differ; empty when they are equal.
std::string difference(const Observation& expected, const Observation& actual);

/// A plug-in and the stores around it. Each member function is one change by an outside writer, delivered to
/// the plug-in, where it is loaded, before the function returns. Stores outlive the plug-in. In the beginning
/// the plug-in is not loaded and the stores are empty but for the entities an agent makes itself, among them
/// the two Quill tables of the VRF "default".
class SystemUnderTest {
  public:
    virtual ~SystemUnderTest() = default;

    /// Loads the plug-in over the stores as they are, mounts and all.
    virtual void start() = 0;
    /// Drops the plug-in; the stores stay.
    virtual void stop() = 0;

    /// A new entry that holds the identifier when it is inserted, or the present one changed in place.
    virtual void vrfStatusIs(const std::string& vrf, std::uint32_t vrfId) = 0;
    /// Another entry object under the name of the present one.
    virtual void vrfStatusReplaced(const std::string& vrf, std::uint32_t vrfId) = 0;
    virtual void vrfStatusDel(const std::string& vrf) = 0;
    virtual void vrfEnabledIs(const std::string& vrf, bool enabled) = 0;
    virtual void vrfEnabledDel(const std::string& vrf) = 0;

    /// An empty route table (Quill) or FIB (Lumen) where there is none.
    virtual void tableIs(const TableName& table) = 0;
    /// Removes a FIB with its routes. Lumen only.
    virtual void tableDel(const TableName& table) = 0;
    /// Adds or changes a row whose outgoing-interface list holds these indexes in this order. Quill only.
    virtual void quillRouteIs(const TableName& table, const RouteKey& key,
                              const std::vector<std::uint16_t>& oifs) = 0;
    /// Adds or changes a row that maps an index to an interface, or to none where the name is empty. Quill
    /// only.
    virtual void oifIndexIntfIs(const TableName& table, std::uint16_t index, const std::string& intf) = 0;
    virtual void oifIndexIntfDel(const TableName& table, std::uint16_t index) = 0;
    /// A new route that is complete when it is inserted, or the present one changed in place: interfaces,
    /// readiness, then, where either differed, the version. Lumen only.
    virtual void lumenRouteIs(const TableName& table, const RouteKey& key, const Names& intfs,
                              std::uint32_t ready) = 0;
    /// Changes a present route's interfaces and readiness but not its version, so that nobody is told. Lumen
    /// only.
    virtual void lumenRouteUntold(const TableName& table, const RouteKey& key, const Names& intfs,
                                  std::uint32_t ready) = 0;
    /// Another route object under the key of the present one. Lumen only.
    virtual void lumenRouteReplaced(const TableName& table, const RouteKey& key, const Names& intfs,
                                    std::uint32_t ready) = 0;
    virtual void routeDel(const TableName& table, const RouteKey& key) = 0;

    virtual void mrouteRequestIs(const RequestKey& key) = 0;
    virtual void mrouteRequestDel(const RequestKey& key) = 0;
    virtual void egressFromAllVrfsIs(bool all) = 0;

    virtual void mgroupRequestIs(const RequestKey& key) = 0;
    virtual void mgroupRequestDel(const RequestKey& key) = 0;
    virtual void groupStatusIs(const GroupKey& key, std::uint32_t groupId) = 0;
    virtual void groupStatusDel(const GroupKey& key) = 0;

    /// What can be seen now; valid until the next call of any member function.
    virtual const Observation& observe() = 0;
};

} // namespace Model
