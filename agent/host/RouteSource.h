// What differs between the sources of routes: where a VRF's tables are, how a route stands in them, how it is
// written, what people see of it. The toggle picks one before the plug-in is loaded; nothing else in the agent
// asks which it is. A third source is one file like QuillSource.cpp, and one row in RouteSources.cpp.
//
// The host owns the one in force. Read next: QuillSource.cpp, LumenSource.cpp; RouteSources.h, the table of them.
#pragma once

#include "records/IpGenRouteKey.h"
#include "state/Datum.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

using RouteKey = Routing::Multicast::Fib::IpGenRouteKey;

/// The two tables that a VRF has.
enum class RouteType : std::uint8_t { staticRoutes, sparse };
constexpr RouteType routeTypes[] = {RouteType::staticRoutes, RouteType::sparse};
/// "static" or "sparse", as people write it.
constexpr std::string_view routeTypeText(RouteType type) {
    return type == RouteType::sparse ? "sparse" : "static";
}

/// A row of any source as people see it.
struct ShownRoute {
    RouteKey key;
    std::vector<std::string_view> oifs; // names; of an index that has no interface "#7"
    bool isReady = true;
};

/// One write of several that stand for a route (the row, and where a source needs them, rows beside it).
struct RowWrite {
    std::string path;
    std::string attribute;
    State::Datum key;
    State::Datum value;
};

/// Routes as writes, for one list of changes: what earlier routes of the list took is taken for later ones.
class RouteDraft {
  public:
    virtual ~RouteDraft() = default;
    /// The writes that put a route into its table, replacing one of the same key.
    /// @param key as the type of the tables' keys reads it.
    /// @throws Refusal for what this source can't say.
    virtual std::vector<RowWrite> route(std::string_view vrf, RouteType type, const State::Datum& key,
                                        const std::vector<std::string>& oifs, bool isReady) = 0;
};

/// An outgoing interface as a kernel tells it. The index identifies it while it exists; the name can change.
struct Oif {
    int ifindex = 0;
    std::string_view name;
};

/// One table or FIB, written row by row without changes and guards: for who has many routes, with keys and
/// interfaces that no guard could refuse. Made on the first write where there is none.
class RouteTable {
  public:
    virtual ~RouteTable() = default;
    /// Puts a route, ready, or gives it other interfaces; true if something changed.
    /// @throws Refusal when the table has no room for another interface; State::Error for a name that no interface
    /// can have.
    virtual bool put(const RouteKey& key, std::span<const Oif> oifs) = 0;
    /// True if it was there.
    virtual bool erase(const RouteKey& key) = 0;
    /// Gives an interface of earlier puts another name. @throws as put()
    /// @return whether that was all; false where rows hold names themselves, and must be put again.
    virtual bool rename(int ifindex, std::string_view name) = 0;
    /// No row has the interface any more, and none will have it under this index.
    virtual void forget(int ifindex) = 0;
};

class RouteSource {
  public:
    virtual ~RouteSource() = default;

    /// "quill", "lumen".
    virtual std::string_view name() const = 0;
    /// Makes what must be in the stores before the plug-in starts.
    virtual void makeEntities() = 0;

    /// Where the table of a VRF is, whether or not it is there.
    virtual std::string tablePath(std::string_view vrf, RouteType type) const = 0;
    virtual bool hasTable(std::string_view vrf, RouteType type) const = 0;
    /// Rows of a table; 0 where there is none.
    virtual std::size_t routes(std::string_view vrf, RouteType type) const = 0;
    /// Visits the rows in table order; visit says whether to go on.
    virtual void eachRoute(std::string_view vrf, RouteType type,
                           const std::function<bool(const ShownRoute&)>& visit) const = 0;

    virtual std::unique_ptr<RouteDraft> draft() const = 0;
    virtual std::unique_ptr<RouteTable> table(std::string_view vrf, RouteType type) = 0;
};

} // namespace Agent
