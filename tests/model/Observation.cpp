#include "tests/model/Observation.h"

#include <algorithm>
#include <cstddef>

namespace Model {

namespace {

template <class Value>
std::string shown(const Value& value) {
    return text(value);
}

std::string shown(const std::set<RouteKey>& routes) {
    std::string result = "{";
    for (const RouteKey& route : routes)
        result += text(route);
    return result + "}";
}

template <class Key>
std::string shown(const OrderedSet<Key>& set) {
    std::string result = "{";
    for (const Key& member : set)
        result += (result.size() > 1 ? ", " : "") + text(member);
    return result + "}";
}

std::string shown(const Watched& watched) {
    std::string result;
    for (const auto& [group, keys] : watched.groupsWithAnySource)
        result += " (*, " + dotted(group) + ")" + shown(keys);
    for (const auto& [source, keys] : watched.sourcesWithAnyGroup)
        result += " (" + dotted(source) + ", *)" + shown(keys);
    for (const auto& [pair, keys] : watched.sourceGroups)
        result += " (" + dotted(pair.first) + ", " + dotted(pair.second) + ")" + shown(keys);
    return result.empty() ? "empty" : result;
}

template <class Key, class Value>
std::string shown(const OrderedMap<Key, Value>& map) {
    std::string result;
    for (const auto& [key, value] : map)
        result += "\n      " + text(key) + " = " + shown(value);
    return result;
}

template <class Key, class Value>
std::string part(const char* name, const OrderedMap<Key, Value>& expected,
                 const OrderedMap<Key, Value>& actual) {
    if (expected == actual)
        return "";
    std::string result = std::string("  ") + name + ":\n";
    const std::size_t bare = result.size();
    for (const auto& [key, value] : expected) {
        const Value* found = actual.find(key);
        if (found == nullptr || *found != value) {
            result += "    " + text(key) + ": expected " + shown(value) + ", is " +
                      (found == nullptr ? "absent" : shown(*found)) + "\n";
        }
    }
    for (const auto& [key, value] : actual)
        if (!expected.has(key))
            result += "    " + text(key) + ": expected absent, is " + shown(value) + "\n";
    if (result.size() == bare) {
        result += "    same members in another order; expected order:" + shown(expected) +
                  "\n    is:" + shown(actual) + "\n";
    }
    return result;
}

template <class Value>
std::string whole(const char* name, const Value& expected, const Value& actual) {
    if (expected == actual)
        return "";
    return std::string("  ") + name + ": expected " + shown(expected) + ", is " + shown(actual) + "\n";
}

// From the first line that differs on.
std::string said(const std::vector<std::string>& expected, const std::vector<std::string>& actual) {
    const auto [mine, theirs] = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    if (mine == expected.end() && theirs == actual.end())
        return "";
    std::string result =
        "  what the plug-in says, after " + std::to_string(mine - expected.begin()) + " equal lines:\n";
    for (auto at = mine; at != expected.end() && at - mine < 12; ++at)
        result += "    expected " + *at + "\n";
    for (auto at = theirs; at != actual.end() && at - theirs < 12; ++at)
        result += "    is       " + *at + "\n";
    return result;
}

} // namespace

std::string traceLine(int level, const std::string& function, const std::string& message) {
    return std::to_string(level) + " " + function + ": " + message;
}

std::string difference(const Observation& expected, const Observation& actual) {
    return said(expected.said, actual.said) +
           part("published mroute answers", expected.mrouteAnswers, actual.mrouteAnswers) +
           part("answers by route type", expected.answersByType, actual.answersByType) +
           part("requesters of mroutes", expected.mrouteRequesters, actual.mrouteRequesters) +
           part("watched mroutes", expected.watched, actual.watched) +
           part("VRF identifiers", expected.vrfIds, actual.vrfIds) +
           part("route map", expected.routeMap, actual.routeMap) +
           part("watchers", expected.watchers, actual.watchers) +
           whole("mounted paths", expected.mounted, actual.mounted) +
           part("published group ids", expected.groupIds, actual.groupIds) +
           whole("group configuration", expected.groupConfig, actual.groupConfig) +
           part("requesters of mgroups", expected.mgroupRequesters, actual.mgroupRequesters) +
           whole("mroute service ready", expected.mrouteReady, actual.mrouteReady) +
           whole("mgroup service ready", expected.mgroupReady, actual.mgroupReady);
}

} // namespace Model
