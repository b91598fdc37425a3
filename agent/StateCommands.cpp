#include "agent/StateCommands.h"

#include "agent/JsonDatum.h"
#include "agent/JsonRpc.h"
#include "agent/OperationError.h"

#include <nlohmann/json.hpp>

#include <utility>

namespace Agent {

namespace {

constexpr const char* vrfStatusPath = "routing/hardware/route/status";
constexpr const char* vrfEnabledPath = "routing/multicast/fibenabled/status";
constexpr std::uint64_t nullIndex = 512;

State::Datum::Record routeKey(WordReader& words) {
    const auto prefix = [&](const char* what) {
        std::string text = words.word(what);
        if (text == "any")
            return std::string("0.0.0.0/0");
        return text.find('/') == std::string::npos ? text + "/32" : text;
    };
    State::Datum::Record key;
    key.emplace_back("source", prefix("a source, as 10.0.0.1/32 or any"));
    key.emplace_back("group", prefix("a group, as 239.1.1.1/32"));
    return key;
}

std::string address(WordReader& words, const char* what) {
    const std::string text = words.word(what);
    return text == "any" ? "0.0.0.0" : text;
}

bool isSparse(WordReader& words) {
    if (words.accept("sparse"))
        return true;
    if (!words.accept("static"))
        words.refuse("a route type, static or sparse");
    return false;
}

} // namespace

State::Datum datumOfWord(const std::string& word) {
    const auto json = nlohmann::json::parse(word, nullptr, false);
    return json.is_discarded() ? State::Datum(word) : toDatum(json);
}

bool StateCommands::compile(std::vector<std::string> given, bool raw, std::vector<Change>& changes) {
    WordReader words(std::move(given));
    changes_ = &changes;
    raw_ = raw;
    const bool isRemoval = words.accept("no");
    if (words.accept("vrf"))
        isRemoval ? noVrf(words) : vrf(words);
    else if (words.accept("route"))
        route(words, isRemoval);
    else if (words.accept("request"))
        requestChange(words, isRemoval);
    else if (words.accept("group"))
        group(words, isRemoval);
    else if (isRemoval)
        words.refuse("vrf, route, request or group");
    else if (words.accept("egress"))
        egress(words);
    else if (words.accept("set"))
        set(words);
    else if (words.accept("del"))
        del(words);
    else
        return false;
    words.expectEnd();
    return true;
}

void StateCommands::add(Change change) {
    change.raw = raw_;
    changes_->push_back(std::move(change));
}

void StateCommands::vrf(WordReader& words) {
    const std::string name = words.word("a VRF's name");
    const State::Datum key(name);
    const bool isNew =
        vrfIds_.find(name) == vrfIds_.end() && !operations_.value(vrfStatusPath, "vrfStatus", &key);
    const bool hasId = words.accept("id");
    if (hasId || isNew) {
        const std::uint64_t id = hasId ? words.number("an identifier", UINT32_MAX) : 0;
        add({.path = vrfStatusPath,
             .attribute = "vrfStatus",
             .key = key,
             .value = State::Datum(State::Datum::Record{{"vrfId", id}})});
        vrfIds_[name] = static_cast<std::uint32_t>(id);
    }
    if (!words.accept("multicast"))
        return;
    const bool isOn = words.onOff("multicast");
    for (const bool sparse : {false, true})
        if (isOn)
            add({.path = tablePath(name, sparse)});
    add({.path = vrfEnabledPath, .attribute = "vrfEnabled", .key = key, .value = State::Datum(isOn)});
}

void StateCommands::noVrf(WordReader& words) {
    const std::string name = words.word("a VRF's name");
    const State::Datum key(name);
    add({.op = Change::Op::del, .path = vrfEnabledPath, .attribute = "vrfEnabled", .key = key});
    add({.op = Change::Op::del, .path = vrfStatusPath, .attribute = "vrfStatus", .key = key});
    vrfIds_[name] = 0;
}

void StateCommands::route(WordReader& words, bool isRemoval) {
    const std::string vrfName = words.word("a VRF's name");
    const std::string path = tablePath(vrfName, isSparse(words));
    const State::Datum key(routeKey(words));
    if (isRemoval) {
        add({.op = Change::Op::del, .path = path, .attribute = "route", .key = key});
        return;
    }
    words.expect("oifs");
    State::Datum::List oifs;
    bool isReady = true;
    while (!words.atEnd()) {
        if (words.accept("not-ready")) {
            isReady = false;
            break;
        }
        if (words.accept("none"))
            continue;
        const std::string intf = words.word("an interface");
        oifs.push_back(operations_.host().isLumen() ? State::Datum(intf)
                                                    : State::Datum(oifIndex(path, intf)));
    }
    State::Datum::Record route;
    if (operations_.host().isLumen()) {
        route.emplace_back("intf", std::move(oifs));
        route.emplace_back("ready", std::uint64_t{isReady ? 1U : 0U});
    } else if (isReady) {
        route.emplace_back("oifs", std::move(oifs));
    } else {
        throw OperationError(RpcCode::invalidParams,
                             "not-ready: routes of the Quill tables have no readiness");
    }
    add({.path = path, .attribute = "route", .key = key, .value = State::Datum(std::move(route))});
}

// The interface's index in the table: the one it has, or the lowest free one from 1, which it then gets.
std::uint64_t StateCommands::oifIndex(const std::string& path, const std::string& intf) {
    const auto [known, isNew] = indexes_.try_emplace(path);
    Indexes& indexes = known->second;
    if (isNew) {
        for (const auto& [index, name] : operations_.members(path, "oifIndexIntf").members) {
            indexes.byIntf.emplace(*name.text(), *index.number());
            indexes.byIndex.emplace(*index.number(), *name.text());
        }
    }
    if (const auto found = indexes.byIntf.find(intf); found != indexes.byIntf.end())
        return found->second;
    std::uint64_t free = 1;
    while (indexes.byIndex.find(free) != indexes.byIndex.end())
        ++free;
    if (free >= nullIndex) {
        throw OperationError(RpcCode::limitReached, "the table has no index left for " + intf,
                             {.path = path});
    }
    indexes.byIntf.emplace(intf, free);
    indexes.byIndex.emplace(free, intf);
    add({.path = path, .attribute = "oifIndexIntf", .key = State::Datum(free), .value = State::Datum(intf)});
    return free;
}

NamedRequest StateCommands::request(WordReader& words) const {
    NamedRequest request;
    request.isMroute = words.accept("mroute");
    if (!request.isMroute && !words.accept("mgroup"))
        words.refuse("mroute or mgroup");
    State::Datum::Record key;
    words.expect("intf");
    key.emplace_back("intf", words.word("an interface"));
    words.expect("vrf");
    key.emplace_back("vrfId", std::uint64_t{vrfId(words.word("a VRF's name"))});
    words.expect("vlan");
    key.emplace_back("vlanId", words.number("a VLAN", UINT16_MAX));
    words.expect("source");
    key.emplace_back("sourceIp", address(words, "a source, as 10.0.0.1 or any"));
    words.expect("group");
    key.emplace_back("groupIp", address(words, "a group, as 239.1.1.1 or any"));
    const std::uint64_t type = request.isMroute ? 0 : 1;
    key.emplace_back("type", words.accept("type") ? words.number("a request type", UINT8_MAX) : type);
    request.key = State::Datum(std::move(key));
    return request;
}

void StateCommands::requestChange(WordReader& words, bool isRemoval) {
    const NamedRequest named = request(words);
    add({.op = isRemoval ? Change::Op::del : Change::Op::set,
         .path = std::string(named.requestPath()),
         .attribute = std::string(named.requestAttribute()),
         .key = named.key});
}

void StateCommands::group(WordReader& words, bool isRemoval) {
    State::Datum::Record key;
    // The group tables have room for the low 16 bits of the identifier.
    key.emplace_back("vrfId", std::uint64_t{vrfId(words.word("a VRF's name")) & 0xffffU});
    key.emplace_back("source", address(words, "a source"));
    key.emplace_back("group", address(words, "a group"));
    words.expect("vlan");
    key.emplace_back("vlanId", words.number("a VLAN", UINT16_MAX));
    Change change{.op = isRemoval ? Change::Op::del : Change::Op::set,
                  .path = "l3/mroutegroup/status",
                  .attribute = "mgroups",
                  .key = State::Datum(std::move(key))};
    if (!isRemoval) {
        words.expect("id");
        change.value =
            State::Datum(State::Datum::Record{{"groupId", words.number("a group id", UINT32_MAX)}});
    }
    add(std::move(change));
}

void StateCommands::egress(WordReader& words) {
    words.expect("all");
    add({.path = "hardware/kestrel/nat/capability/config",
         .attribute = "egressFromAllVrfs",
         .value = State::Datum(words.onOff("egress all"))});
}

void StateCommands::set(WordReader& words) {
    Change change{.path = words.word("a path")};
    if (!words.atEnd()) {
        change.attribute = words.word("an attribute");
        const auto kind = operations_.attributeAt(change.path, change.attribute).kind();
        if (kind != State::AttributeKind::value)
            change.key = datumOfWord(words.word("a key"));
        if (kind == State::AttributeKind::value || !words.atEnd())
            change.value = datumOfWord(words.word("a value"));
    }
    add(std::move(change));
}

void StateCommands::del(WordReader& words) {
    Change change{
        .op = Change::Op::del, .path = words.word("a path"), .attribute = words.word("an attribute")};
    change.key = datumOfWord(words.word("a key"));
    add(std::move(change));
}

std::uint32_t StateCommands::vrfId(const std::string& name) const {
    const auto given = vrfIds_.find(name);
    if (given != vrfIds_.end() && (given->second != 0 || name == "default"))
        return given->second;
    if (given == vrfIds_.end()) {
        if (const auto id = operations_.vrfIdOf(name))
            return *id;
    }
    if (name.find_first_not_of("0123456789") == std::string::npos)
        return static_cast<std::uint32_t>(WordReader({name}).number("an identifier", UINT32_MAX));
    throw OperationError(RpcCode::invalidParams, "VRF '" + name + "' has no identifier");
}

std::string StateCommands::tablePath(const std::string& vrfName, bool isSparse) const {
    if (operations_.host().isLumen())
        return std::string("lumen/multicast/fib/ipv4/") + (isSparse ? "sparsemode/" : "user/") + vrfName;
    return "routing/multicast/routestatus/" + vrfName + (isSparse ? "/sparsemode" : "/static");
}

} // namespace Agent
