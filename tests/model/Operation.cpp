#include "tests/model/Operation.h"

namespace Model {

void apply(const Operation& op, SystemUnderTest& system) {
    switch (op.kind) {
    case Kind::start:
        return system.start();
    case Kind::stop:
        return system.stop();
    case Kind::vrfStatusIs:
        return system.vrfStatusIs(op.vrf, op.vrfId);
    case Kind::vrfStatusReplaced:
        return system.vrfStatusReplaced(op.vrf, op.vrfId);
    case Kind::vrfStatusDel:
        return system.vrfStatusDel(op.vrf);
    case Kind::vrfEnabledIs:
        return system.vrfEnabledIs(op.vrf, op.flag);
    case Kind::vrfEnabledDel:
        return system.vrfEnabledDel(op.vrf);
    case Kind::tableIs:
        return system.tableIs(op.table);
    case Kind::tableDel:
        return system.tableDel(op.table);
    case Kind::quillRouteIs:
        return system.quillRouteIs(op.table, op.route, op.oifs);
    case Kind::oifIndexIntfIs:
        return system.oifIndexIntfIs(op.table, op.index, op.intf);
    case Kind::oifIndexIntfDel:
        return system.oifIndexIntfDel(op.table, op.index);
    case Kind::lumenRouteIs:
        return system.lumenRouteIs(op.table, op.route, op.intfs, op.ready);
    case Kind::lumenRouteUntold:
        return system.lumenRouteUntold(op.table, op.route, op.intfs, op.ready);
    case Kind::lumenRouteReplaced:
        return system.lumenRouteReplaced(op.table, op.route, op.intfs, op.ready);
    case Kind::routeDel:
        return system.routeDel(op.table, op.route);
    case Kind::mrouteRequestIs:
        return system.mrouteRequestIs(op.request);
    case Kind::mrouteRequestDel:
        return system.mrouteRequestDel(op.request);
    case Kind::egressFromAllVrfsIs:
        return system.egressFromAllVrfsIs(op.flag);
    case Kind::mgroupRequestIs:
        return system.mgroupRequestIs(op.request);
    case Kind::mgroupRequestDel:
        return system.mgroupRequestDel(op.request);
    case Kind::groupStatusIs:
        return system.groupStatusIs(op.group, op.groupId);
    case Kind::groupStatusDel:
        return system.groupStatusDel(op.group);
    }
}

std::string text(const Operation& op) {
    const std::string vrfId = " id " + std::to_string(op.vrfId);
    const std::string row = text(op.table) + " " + text(op.route);
    const std::string content = " intfs " + text(op.intfs) + " ready " + std::to_string(op.ready);
    const std::string oifRow = text(op.table) + " oif " + std::to_string(op.index);
    switch (op.kind) {
    case Kind::start:
        return "start the plug-in";
    case Kind::stop:
        return "drop the plug-in";
    case Kind::vrfStatusIs:
        return "vrf " + op.vrf + vrfId;
    case Kind::vrfStatusReplaced:
        return "vrf " + op.vrf + " another entry" + vrfId;
    case Kind::vrfStatusDel:
        return "no vrf " + op.vrf;
    case Kind::vrfEnabledIs:
        return "vrf " + op.vrf + " multicast " + (op.flag ? "on" : "off");
    case Kind::vrfEnabledDel:
        return "no vrf " + op.vrf + " multicast";
    case Kind::tableIs:
        return "table " + text(op.table);
    case Kind::tableDel:
        return "no table " + text(op.table);
    case Kind::quillRouteIs: {
        std::string oifs;
        for (const std::uint16_t oif : op.oifs)
            oifs += " " + std::to_string(oif);
        return "route " + row + " oifs" + oifs;
    }
    case Kind::oifIndexIntfIs:
        return oifRow + " is " + text(op.intf);
    case Kind::oifIndexIntfDel:
        return "no " + oifRow;
    case Kind::lumenRouteIs:
        return "route " + row + content;
    case Kind::lumenRouteUntold:
        return "route " + row + " without a new version" + content;
    case Kind::lumenRouteReplaced:
        return "route " + row + " another object" + content;
    case Kind::routeDel:
        return "no route " + row;
    case Kind::mrouteRequestIs:
        return "request mroute " + text(op.request);
    case Kind::mrouteRequestDel:
        return "no request mroute " + text(op.request);
    case Kind::egressFromAllVrfsIs:
        return std::string("egress all ") + (op.flag ? "on" : "off");
    case Kind::mgroupRequestIs:
        return "request mgroup " + text(op.request);
    case Kind::mgroupRequestDel:
        return "no request mgroup " + text(op.request);
    case Kind::groupStatusIs:
        return "group " + text(op.group) + " id " + std::to_string(op.groupId);
    case Kind::groupStatusDel:
        return "no group " + text(op.group);
    }
    return "";
}

} // namespace Model
