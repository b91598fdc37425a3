// One change by an outside writer as a value, so that a run can be kept, shortened, repeated and played: each
// kind says what it changes, and its line is what a scenario file would have. NaiveModel.h and
// ProductUnderTest.h carry them out, OperationSource.h draws them at random.
#pragma once

#include "tests/model/PlainTypes.h"

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace Model {

/// Loads the plug-in over the stores as they are, mounts and all, or drops it; the stores stay.
struct PlugIn {
    bool isLoaded = true;
    std::string line(Source source) const;
};

/// The identifier in a VRF's entry, set in place or with another entry object in place of a present one, or no entry.
struct VrfStatus {
    std::string vrf;
    std::optional<std::uint32_t> vrfId;
    bool isAnotherEntry = false;
    std::string line(Source source) const;
};

/// Whether multicast is on in a VRF, or no word of it.
struct VrfEnabled {
    std::string vrf;
    std::optional<bool> isOn;
    std::string line(Source source) const;
};

/// An empty route table (Quill) or FIB (Lumen) where there is none, or a FIB gone with its routes.
struct TableIs {
    TableName table;
    bool isThere = true;
    std::string line(Source source) const;
};

/// A row of a route table with its outgoing-interface indexes, in their order, or its removal. Quill only.
struct QuillRoute {
    TableName table;
    RouteKey key;
    std::optional<std::vector<std::uint16_t>> oifs;
    std::string line(Source source) const;
};

/// The interface of an index, the empty one included, or no row for the index. Quill only.
struct OifRow {
    TableName table;
    std::uint16_t index = 0;
    std::optional<std::string> intf;
    std::string line(Source source) const;
};

/// How the writer of a Lumen route goes about a route that is there.
enum class Writing {
    told,    // in place; then, where anything differs, its version
    untold,  // in place, and nobody is told
    replaced // with another route object
};

/// A route of a FIB, complete when it is inserted, or its removal. Lumen only.
struct LumenRoute {
    TableName table;
    RouteKey key;
    std::optional<Names> intfs;
    std::uint32_t ready = 1;
    Writing writing = Writing::told;
    std::string line(Source source) const;
};

/// A request, or its withdrawal.
struct Request {
    Service service = Service::mroute;
    RequestKey key;
    bool isThere = true;
    std::string line(Source source) const;
};

/// Whether answers are gathered from all VRFs.
struct EgressFromAllVrfs {
    bool isOn = false;
    std::string line(Source source) const;
};

/// The group that the hardware has for a flow, or none.
struct GroupStatus {
    GroupKey key;
    std::optional<std::uint32_t> groupId;
    std::string line(Source source) const;
};

/// Whether a chip answers each row of the group configuration while it is being written, and withdraws its answer with
/// the row.
struct Chip {
    bool isThere = false;
    std::string line(Source source) const;
};

using Operation = std::variant<PlugIn, VrfStatus, VrfEnabled, TableIs, QuillRoute, OifRow, LumenRoute,
                               Request, EgressFromAllVrfs, GroupStatus, Chip>;

/// The operation as a line of a scenario file, a comment where the grammar has no word for it.
std::string line(Source source, const Operation& operation);

/// A visitor made of one function for each kind of operation.
template <class... Functions>
struct Each : Functions... {
    using Functions::operator()...;
};
template <class... Functions>
Each(Functions...) -> Each<Functions...>;

} // namespace Model
