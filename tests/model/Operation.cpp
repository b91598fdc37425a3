#include "tests/model/Operation.h"

namespace Model {

namespace {

std::string quoted(const std::string& json) {
    std::string result = "\"";
    for (const char c : json)
        result += c == '"' ? std::string("\\\"") : std::string(1, c);
    return result + "\"";
}

std::string member(const char* name, const std::string& value) {
    return std::string("\"") + name + "\":\"" + value + "\"";
}

std::string row(const TableName& table) {
    return table.vrf + (table.type == RouteType::plain ? " static" : " sparse");
}

std::string words(const RouteKey& key) {
    return " " + text(key.source) + " " + text(key.group);
}

std::string flow(Address source, Address group) {
    return " source " + (source == 0 ? "any" : dotted(source)) + " group " +
           (group == 0 ? "any" : dotted(group));
}

std::string setOrDel(bool isThere, const std::string& rest) {
    return (isThere ? "set " : "del ") + rest;
}

} // namespace

std::string PlugIn::line(Source) const {
    return isLoaded ? "# the agent starts; lines above are what it is preloaded with" : "# the agent ends";
}

std::string VrfStatus::line(Source) const {
    if (!vrfId)
        return "del routing/hardware/route/status vrfStatus " + vrf;
    return "vrf " + vrf + " id " + std::to_string(*vrfId) + (isAnotherEntry ? " # in another entry" : "");
}

std::string VrfEnabled::line(Source) const {
    if (!isOn)
        return "del routing/multicast/fibenabled/status vrfEnabled " + vrf;
    return "vrf " + vrf + " multicast " + (*isOn ? "on" : "off");
}

std::string TableIs::line(Source source) const {
    if (isThere)
        return "# table " + row(table) + ", which a VRF's multicast on makes";
    return "del " + mountPath(source, table) + " status " + table.vrf;
}

std::string QuillRoute::line(Source source) const {
    const std::string place =
        mountPath(source, table) + " route " +
        quoted("{" + member("source", text(key.source)) + "," + member("group", text(key.group)) + "}");
    if (!oifs)
        return "del " + place;
    std::string list;
    for (const std::uint16_t oif : *oifs)
        list += (list.empty() ? "" : ",") + std::to_string(oif);
    return "set " + place + " " + quoted("{\"oifs\":[" + list + "]}");
}

std::string OifRow::line(Source source) const {
    return setOrDel(intf.has_value(), mountPath(source, table) + " oifIndexIntf " + std::to_string(index)) +
           (intf ? " " + quoted(*intf) : "");
}

std::string LumenRoute::line(Source) const {
    const std::string place = "route " + row(table) + words(key);
    if (!intfs)
        return "no " + place;
    std::string list;
    for (const std::string& intf : *intfs)
        list += intf.empty() ? " \"\"" : " " + intf;
    return place + " oifs" + (list.empty() ? " none" : list) + (ready == 1 ? "" : " not-ready") +
           (writing == Writing::untold     ? " # without a new version"
            : writing == Writing::replaced ? " # as another route object"
                                           : "");
}

std::string Request::line(Source) const {
    const bool isMroute = service == Service::mroute;
    const std::string name = isMroute ? "mroute" : "mgroup";
    if (key.type == (isMroute ? 0 : 1))
        return (isThere ? "request " : "no request ") + name + " intf " + key.intf + " vrf " +
               std::to_string(key.vrfId) + " vlan " + std::to_string(key.vlan) + flow(key.source, key.group);
    return setOrDel(isThere, "api/" + name + "/req " + name + "Req ") +
           quoted("{" + member("intf", key.intf) + ",\"vrfId\":" + std::to_string(key.vrfId) +
                  ",\"vlanId\":" + std::to_string(key.vlan) + "," + member("sourceIp", dotted(key.source)) +
                  "," + member("groupIp", dotted(key.group)) + "," +
                  member("type", isMroute ? "mgroupRequest" : "mrouteRequest") + "}");
}

std::string EgressFromAllVrfs::line(Source) const {
    return std::string("egress all ") + (isOn ? "on" : "off");
}

std::string GroupStatus::line(Source) const {
    const std::string place = "group " + std::to_string(key.vrfId) + " " + dotted(key.source) + " " +
                              dotted(key.group) + " vlan " + std::to_string(key.vlan);
    return groupId ? place + " id " + std::to_string(*groupId) : "no " + place;
}

std::string Chip::line(Source) const {
    return isThere ? "# a chip answers from here on" : "# no chip answers from here on";
}

std::string line(Source source, const Operation& operation) {
    return std::visit([source](const auto& op) { return op.line(source); }, operation);
}

} // namespace Model
