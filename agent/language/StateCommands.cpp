#include "agent/language/StateCommands.h"

#include "agent/host/Refusal.h"
#include "agent/json/Json.h"
#include "records/MrouteGroup.h"
#include "records/NatStatus.h"
#include "records/RouteStatus.h"

#include <charconv>
#include <utility>

namespace Agent {

namespace {

using Op = Change::Op;
using KestrelCommon::MrouteGroup::MgroupColl;
using KestrelNat::CapabilityConfig;
using Routing::Hardware::RouteStatus;
using Routing::Multicast::Fib::VrfEnabledStatus;
using State::Datum;

constexpr const char* statusAttribute = "vrfStatus";
constexpr const char* idField = "vrfId";

std::string address(WordReader& words, const char* what) {
    const std::string text = words.word(what);
    return text == "any" ? "0.0.0.0" : text;
}

std::string prefix(WordReader& words, const char* what) {
    const std::string text = words.word(what);
    if (text == "any")
        return "0.0.0.0/0";
    return text.find('/') == std::string::npos ? text + "/32" : text;
}

Datum routeKey(WordReader& words) {
    Datum::Record key;
    key.emplace_back("source", prefix(words, "a source, as 10.0.0.1/32 or any"));
    key.emplace_back("group", prefix(words, "a group, as 239.1.1.1/32"));
    return key;
}

RouteType routeType(WordReader& words) {
    std::vector<std::string_view> names;
    for (const RouteType type : routeTypes)
        names.push_back(routeTypeText(type));
    return routeTypes[words.oneOf("a route type", names)];
}

} // namespace

Datum datumOfWord(const std::string& word) {
    try {
        return Json::parse(word);
    } catch (const Json::Error&) {
        return word;
    }
}

struct StateCommands::Row {
    bool isRemoval;
    std::string_view verb;
    void (StateCommands::*read)(WordReader&);
};

std::span<const StateCommands::Row> StateCommands::table() {
    static constexpr Row rows[] = {
        {false, "vrf", &StateCommands::vrf},
        {true, "vrf", &StateCommands::noVrf},
        {false, "route", &StateCommands::route},
        {true, "route", &StateCommands::noRoute},
        {false, "request", &StateCommands::addRequest},
        {true, "request", &StateCommands::noRequest},
        {false, "group", &StateCommands::group},
        {true, "group", &StateCommands::noGroup},
        {false, "egress", &StateCommands::egress},
        {false, "set", &StateCommands::set},
        {false, "del", &StateCommands::del},
    };
    return rows;
}

StateCommands::StateCommands(const Operations& operations)
    : operations_(operations)
    , routes_(operations.host().routes().draft()) {}

bool StateCommands::compile(const std::vector<std::string>& given, bool raw, std::vector<Change>& changes) {
    WordReader words(given);
    changes_ = &changes;
    raw_ = raw;
    const bool isRemoval = words.accept("no");
    std::vector<std::string_view> removable;
    for (const Row& row : table()) {
        if (row.isRemoval == isRemoval && words.accept(row.verb)) {
            (this->*row.read)(words);
            words.expectEnd();
            return true;
        }
        if (row.isRemoval)
            removable.push_back(row.verb);
    }
    if (isRemoval)
        words.oneOf("what to take back", removable);
    return false;
}

void StateCommands::add(Change change) {
    change.raw = raw_;
    noteVrf(change);
    changes_->push_back(std::move(change));
}

// Takes in what a change of a VRF's entry says to later lines, whichever verb made it.
void StateCommands::noteVrf(const Change& change) {
    if (change.path != RouteStatus::path || change.attribute != statusAttribute ||
        change.key->text() == nullptr)
        return;
    const std::string& name = *change.key->text();
    if (change.op == Op::del) {
        vrfs_[name].reset();
        return;
    }
    const auto known = vrfs_.find(name);
    std::uint32_t id = (known != vrfs_.end() ? known->second : operations_.vrfIdOf(name)).value_or(0);
    if (const Datum::Record* entry = change.value ? change.value->record() : nullptr)
        for (const auto& [field, content] : *entry)
            if (field == idField && content.number() != nullptr)
                id = static_cast<std::uint32_t>(*content.number());
    vrfs_[name] = id;
}

void StateCommands::vrf(WordReader& words) {
    const std::string name = words.word("a VRF's name");
    const Datum key(name);
    const auto known = vrfs_.find(name);
    const bool isNew =
        known != vrfs_.end() ? !known->second : !operations_.value(RouteStatus::path, statusAttribute, &key);
    const bool hasId = words.accept("id");
    if (hasId || isNew) {
        const std::uint64_t id = hasId ? words.number("an identifier", UINT32_MAX) : 0;
        add({.path = RouteStatus::path,
             .attribute = statusAttribute,
             .key = key,
             .value = Datum(Datum::Record{{idField, id}})});
    }
    if (!words.accept("multicast"))
        return;
    const bool isOn = words.onOff("multicast");
    for (const RouteType type : routeTypes)
        if (isOn)
            add({.path = operations_.host().routes().tablePath(name, type)});
    add({.path = VrfEnabledStatus::path, .attribute = "vrfEnabled", .key = key, .value = Datum(isOn)});
}

void StateCommands::noVrf(WordReader& words) {
    const std::string name = words.word("a VRF's name");
    add({.op = Op::del, .path = VrfEnabledStatus::path, .attribute = "vrfEnabled", .key = Datum(name)});
    add({.op = Op::del, .path = RouteStatus::path, .attribute = statusAttribute, .key = Datum(name)});
}

void StateCommands::route(WordReader& words) {
    const std::string vrfName = words.word("a VRF's name");
    const RouteType type = routeType(words);
    const Datum key = routeKey(words);
    words.expect("oifs");
    std::vector<std::string> oifs;
    bool isReady = true;
    while (!words.atEnd() && isReady)
        if (words.accept("not-ready"))
            isReady = false;
        else if (!words.accept("none"))
            oifs.push_back(words.word("an interface"));
    for (RowWrite& write : routes_->route(vrfName, type, key, oifs, isReady))
        add({.path = std::move(write.path),
             .attribute = std::move(write.attribute),
             .key = std::move(write.key),
             .value = std::move(write.value)});
}

void StateCommands::noRoute(WordReader& words) {
    const std::string vrfName = words.word("a VRF's name");
    const RouteType type = routeType(words);
    add({.op = Op::del,
         .path = operations_.host().routes().tablePath(vrfName, type),
         .attribute = "route",
         .key = routeKey(words)});
}

NamedRequest StateCommands::request(WordReader& words) const {
    std::vector<std::string_view> names;
    for (const Service& service : services())
        names.push_back(service.name);
    const Service& service = services()[words.oneOf("a service", names)];
    Datum::Record key;
    words.expect("intf");
    key.emplace_back("intf", words.word("an interface"));
    words.expect("vrf");
    key.emplace_back(idField, std::uint64_t{vrfId(words)});
    words.expect("vlan");
    key.emplace_back("vlanId", words.number("a VLAN", UINT16_MAX));
    words.expect("source");
    key.emplace_back("sourceIp", address(words, "a source, as 10.0.0.1 or any"));
    words.expect("group");
    key.emplace_back("groupIp", address(words, "a group, as 239.1.1.1 or any"));
    const auto type = static_cast<std::uint64_t>(service.requestType);
    key.emplace_back("type", words.accept("type") ? words.number("a request type", UINT8_MAX) : type);
    return {.service = &service, .key = Datum(std::move(key))};
}

void StateCommands::addRequest(WordReader& words) {
    const NamedRequest named = request(words);
    add({.path = named.service->requestPath,
         .attribute = std::string(named.service->requestAttribute),
         .key = named.key});
}

void StateCommands::noRequest(WordReader& words) {
    addRequest(words);
    changes_->back().op = Op::del;
}

Datum StateCommands::groupKey(WordReader& words) const {
    Datum::Record key;
    // The group tables have room for the low 16 bits of the identifier.
    key.emplace_back(idField, std::uint64_t{vrfId(words) & 0xffffU});
    key.emplace_back("source", address(words, "a source"));
    key.emplace_back("group", address(words, "a group"));
    words.expect("vlan");
    key.emplace_back("vlanId", words.number("a VLAN", UINT16_MAX));
    return key;
}

void StateCommands::group(WordReader& words) {
    Change change{.path = MgroupColl::path, .attribute = "mgroups", .key = groupKey(words)};
    words.expect("id");
    change.value = Datum(Datum::Record{{"groupId", words.number("a group id", UINT32_MAX)}});
    add(std::move(change));
}

void StateCommands::noGroup(WordReader& words) {
    add({.op = Op::del, .path = MgroupColl::path, .attribute = "mgroups", .key = groupKey(words)});
}

void StateCommands::egress(WordReader& words) {
    words.expect("all");
    add({.path = CapabilityConfig::path,
         .attribute = "egressFromAllVrfs",
         .value = Datum(words.onOff("egress all"))});
}

void StateCommands::set(WordReader& words) {
    Change change{.path = words.word("a path")};
    words.checkLast([&] { static_cast<void>(operations_.typeAt(change.path)); });
    if (!words.atEnd()) {
        change.attribute = words.word("an attribute");
        auto kind = State::AttributeKind::value;
        words.checkLast([&] { kind = operations_.attributeAt(change.path, change.attribute).kind(); });
        if (kind != State::AttributeKind::value)
            change.key = datumOfWord(words.word("a key"));
        if (kind == State::AttributeKind::value || !words.atEnd())
            change.value = datumOfWord(words.word("a value"));
    }
    add(std::move(change));
}

void StateCommands::del(WordReader& words) {
    Change change{.op = Op::del, .path = words.word("a path"), .attribute = words.word("an attribute")};
    change.key = datumOfWord(words.word("a key"));
    add(std::move(change));
}

std::uint32_t StateCommands::vrfId(WordReader& words) const {
    const std::string name = words.word("a VRF's name");
    const auto known = vrfs_.find(name);
    const auto id = known != vrfs_.end() ? known->second : operations_.vrfIdOf(name);
    if (GuardFacts::isIdentified(name, id))
        return *id;
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (error != std::errc{} || end != name.data() + name.size())
        words.refuseLast("VRF '" + name + "' has no identifier");
    return number;
}

} // namespace Agent
