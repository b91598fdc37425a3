#include "ctl/Print.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <ostream>
#include <vector>

namespace Ctl {

namespace {

using Json = nlohmann::ordered_json;

/// JSON on one line; bytes that are no UTF-8 can't come from a parsed message.
std::string compact(const Json& value) {
    return value.dump();
}

std::string field(const Json& object, const char* name) {
    const auto found = object.find(name);
    return found == object.end() ? std::string("?") : plain(*found);
}

std::string address(const Json& key, const char* name) {
    const std::string text = field(key, name);
    return text == "0.0.0.0" ? "any" : text;
}

std::string answerText(const Json& value) {
    if (value.is_null())
        return "gone";
    if (!value.is_array())
        return plain(value);
    std::string words;
    for (const Json& intf : value)
        words += (words.empty() ? "" : " ") + plain(intf);
    return words.empty() ? "none" : words;
}

/// Whether a value stands behind its name on one line.
bool isShort(const Json& value) {
    if (!value.is_structured())
        return true;
    return value.is_array() &&
           std::none_of(value.begin(), value.end(), [](const Json& each) { return each.is_structured(); });
}

std::string shortText(const Json& value) {
    if (!value.is_array())
        return plain(value);
    std::string list;
    for (const Json& each : value)
        list += (list.empty() ? "" : ", ") + plain(each);
    return list.empty() ? "none" : list;
}

std::vector<std::string> outline(const Json& value) {
    std::vector<std::string> lines;
    const auto addNested = [&lines](const Json& nested, const std::string& first) {
        std::string lead = first;
        for (const std::string& line : outline(nested)) {
            lines.push_back(lead + line);
            lead = "  ";
        }
    };
    if (isShort(value)) {
        lines.push_back(shortText(value));
    } else if (value.is_array()) {
        for (const Json& each : value)
            addNested(each, "- ");
    } else {
        for (auto member = value.begin(); member != value.end(); ++member) {
            if (isShort(*member)) {
                lines.push_back(member.key() + ": " + shortText(*member));
            } else {
                lines.push_back(member.key() + ":");
                addNested(*member, "  ");
            }
        }
    }
    return lines;
}

bool isMapEntry(const Json& entry) {
    return entry.is_object() && entry.size() == 2 && entry.contains("key") && entry.contains("value");
}

} // namespace

std::string plain(const Json& value) {
    return value.is_string() ? value.get<std::string>() : compact(value);
}

std::string changeText(const Json& change) {
    const Json& key = change.at("key");
    const std::string path = field(change, "path");
    std::string service = path;
    for (const char* name : {"mroute", "mgroup"})
        if (path == std::string("api/") + name + "/resp")
            service = name;
    return service + " (" + address(key, "sourceIp") + ", " + address(key, "groupIp") + ") in " +
           (change.contains("vrf") ? field(change, "vrf") : field(key, "vrfId")) + " for " +
           field(key, "intf") + " vlan " + field(key, "vlanId") + ": " + answerText(change.at("value"));
}

void printOutline(std::ostream& out, const Json& value) {
    for (const std::string& line : outline(value))
        out << line << '\n';
}

void printValue(std::ostream& out, const Json& value) {
    if (!value.is_array()) {
        printOutline(out, value);
        return;
    }
    for (const Json& entry : value)
        if (isMapEntry(entry))
            out << plain(entry.at("key")) << " = " << plain(entry.at("value")) << '\n';
        else
            out << plain(entry) << '\n';
}

} // namespace Ctl
