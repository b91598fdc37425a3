// What differs between the sources of routes: where a VRF's tables are, how a route stands in them, how it is
// written, what people see of it. The toggle picks one before the plug-in is loaded; nothing else in the agent
// asks which it is. A third source is one file like QuillSource.cpp, and its name in routeSources().
//
// The host owns the one in force. Read next: QuillSource.cpp, LumenSource.cpp.
#pragma once

#include "agent/host/Change.h"
#include "agent/host/PathShape.h"
#include "records/IpGenRouteKey.h"

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

using RouteKey = Routing::Multicast::Fib::IpGenRouteKey;

/// A row of any source as people see it.
struct ShownRoute {
    RouteKey key;
    std::vector<std::string_view> oifs; // names; of an index that has no interface "#7"
    bool isReady = true;
};

/// A route that is to be written.
struct DraftedRoute {
    std::string vrf;
    RouteType type = RouteType::staticRoutes;
    State::Datum key; // as the type of the tables' keys reads it
    std::vector<std::string> oifs = {};
    bool isReady = true;
};

/// Says what puts routes into their tables. One serves a list of changes: what earlier ones of the list took is taken
/// for later ones.
class RouteDraft {
  public:
    virtual ~RouteDraft() = default;
    /// The changes that put a route, replacing one of the same key, and what it needs beside it.
    /// @throws Refusal for what the source can't say.
    virtual std::vector<Change> changes(const DraftedRoute& route) = 0;
    /// The list removes the table at the path.
    virtual void tableGoes(const std::string& /*path*/) {}
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
    /// Gives an interface of earlier puts another name.
    /// @return whether that was all; false where rows hold names themselves or the name is refused: those are to be
    /// put again.
    virtual bool rename(int /*ifindex*/, std::string_view /*name*/) { return false; }
    /// No row has the interface any more, and none will have it under this index.
    virtual void forget(int /*ifindex*/) {}
};

class RouteSource {
  public:
    virtual ~RouteSource() = default;

    /// "quill", "lumen".
    virtual std::string_view name() const = 0;
    /// Where the table of a VRF is, whether or not it is there.
    virtual std::string tablePath(std::string_view vrf, RouteType type) const = 0;
    /// The table or FIB of a VRF, or null.
    virtual State::Handle<State::Entity> find(std::string_view vrf, RouteType type) const = 0;
    /// Rows of a table; 0 where there is none.
    std::size_t routes(std::string_view vrf, RouteType type) const;
    /// Visits the rows in table order, behind `after` if that is given and there; visit says whether to go on.
    virtual void eachRoute(std::string_view vrf, RouteType type, const RouteKey* after,
                           const std::function<bool(const ShownRoute&)>& visit) const = 0;
    /// Visits the keys of all rows in table order, and reads no more of them.
    virtual void eachKey(std::string_view vrf, RouteType type,
                         const std::function<void(const RouteKey&)>& visit) const = 0;
    /// Shows one row; false where there is none.
    virtual bool showRoute(std::string_view vrf, RouteType type, const RouteKey& key,
                           const std::function<void(const ShownRoute&)>& show) const = 0;

    virtual std::unique_ptr<RouteDraft> draft() const = 0;
    virtual std::unique_ptr<RouteTable> table(std::string_view vrf, RouteType type) const = 0;
};

/// A row of the table of sources.
struct RouteSourceRow {
    bool toggle; // the value of the toggle that picks it
    /// Makes the source, and what must be in the stores before the plug-in starts.
    std::unique_ptr<RouteSource> (*make)(const Stores& stores);
    std::span<const PathShape> shapes; // its paths, which can be read and written whatever source is in force
};

std::span<const RouteSourceRow> routeSources();
/// Rows of that table, each in a file of its own.
RouteSourceRow quillSource();
RouteSourceRow lumenSource();

} // namespace Agent
