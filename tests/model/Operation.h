// One change by an outside writer as a value, so that a run can be kept, shortened, replayed and printed.
// Guards.h says which ones an agent lets through; OperationSource.h draws them at random.
#pragma once

#include "tests/model/SystemUnderTest.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Model {

/// Which member function of SystemUnderTest the operation is.
enum class Kind {
    start,
    stop,
    vrfStatusIs,
    vrfStatusReplaced,
    vrfStatusDel,
    vrfEnabledIs,
    vrfEnabledDel,
    tableIs,
    tableDel,
    quillRouteIs,
    oifIndexIntfIs,
    oifIndexIntfDel,
    lumenRouteIs,
    lumenRouteUntold,
    lumenRouteReplaced,
    routeDel,
    mrouteRequestIs,
    mrouteRequestDel,
    egressFromAllVrfsIs,
    mgroupRequestIs,
    mgroupRequestDel,
    groupStatusIs,
    groupStatusDel,
};

/// The fields that the kind does not use stay as they are.
struct Operation {
    Kind kind = Kind::start;
    std::string vrf = {};
    std::uint32_t vrfId = 0;
    bool flag = false; // enabled, or all VRFs
    TableName table = {};
    RouteKey route = {};
    std::vector<std::uint16_t> oifs = {};
    Names intfs = {};
    std::uint32_t ready = 1;
    std::uint16_t index = 0;
    std::string intf = {};
    RequestKey request = {};
    GroupKey group = {};
    std::uint32_t groupId = 0;
};

void apply(const Operation& operation, SystemUnderTest& system);
std::string text(const Operation& operation);

} // namespace Model
