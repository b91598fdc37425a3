#include "agent/language/StateCommands.h"

#include "agent/json/Json.h"
#include "records/MrouteGroup.h"
#include "records/NatStatus.h"
#include "records/RouteStatus.h"
#include "text/Words.h"

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

RouteType routeType(WordReader& words) {
    return routeTypes[words.oneOf("a route type", Text::namesOf(routeTypes, &routeTypeText))];
}

// The identifier that an entry names, if it is a number.
std::optional<std::uint32_t> idIn(const Datum& entry) {
    if (const Datum::Record* record = entry.record())
        for (const auto& [field, content] : *record)
            if (field == idField && content.number() != nullptr)
                return static_cast<std::uint32_t>(*content.number());
    return std::nullopt;
}

} // namespace

Datum datumOfWord(const std::string& word) {
    try {
        return Json::parse(word);
    } catch (const Json::Error&) {
        return word;
    }
}

const StateCommands::Row StateCommands::table[] = {
    {"vrf", &StateCommands::vrf, true},         {"route", &StateCommands::route, true},
    {"request", &StateCommands::request, true}, {"group", &StateCommands::group, true},
    {"egress", &StateCommands::egress, false},  {"set", &StateCommands::set, false},
    {"del", &StateCommands::del, false},
};

StateCommands::StateCommands(const Operations& operations, bool raw, VrfIds vrfs)
    : operations_(operations)
    , raw_(raw)
    , draft_(operations.host().routes().draft())
    , vrfs_(std::move(vrfs)) {}

bool StateCommands::compile(const std::vector<std::string>& given, std::size_t line) {
    WordReader words(given);
    line_ = line;
    const Op op = words.accept("no") ? Op::del : Op::set;
    std::vector<std::string_view> removable;
    for (const Row& row : table) {
        if ((op == Op::set || row.isRemovable) && words.accept(row.verb)) {
            (this->*row.read)(words, op);
            words.expectEnd();
            return true;
        }
        if (row.isRemovable)
            removable.push_back(row.verb);
    }
    if (op == Op::del)
        words.oneOf("what to take back", removable);
    return false;
}

void StateCommands::add(Change change) {
    change.raw = raw_;
    change.line = line_;
    noteVrf(change);
    if (change.op == Op::del && change.attribute.empty())
        draft_->tableGoes(change.path);
    changes_.push_back(std::move(change));
}

// Takes in what a change of a VRF's entry says to later lines, whichever verb made it.
void StateCommands::noteVrf(const Change& change) {
    if (change.path != RouteStatus::path || change.attribute != statusAttribute ||
        change.key->text() == nullptr)
        return;
    const std::string& name = *change.key->text();
    if (change.op == Op::del)
        vrfs_[name].reset();
    else
        vrfs_[name] = idIn(change.value.value_or(Datum())).value_or(idOf(name).value_or(0));
}

// The identifier of a VRF as the lines so far leave it (0: it has none), if it has an entry.
std::optional<std::uint32_t> StateCommands::idOf(const std::string& vrfName) const {
    if (const auto known = vrfs_.find(vrfName); known != vrfs_.end())
        return known->second;
    const Datum key(vrfName);
    const std::optional<Datum> entry = operations_.value(RouteStatus::path, statusAttribute, &key);
    return entry ? idIn(*entry) : std::nullopt;
}

void StateCommands::vrf(WordReader& words, Op op) {
    const std::string name = words.word("a VRF's name");
    if (op == Op::del) {
        add({.op = op, .path = VrfEnabledStatus::path, .attribute = "vrfEnabled", .key = name});
        add({.op = op, .path = RouteStatus::path, .attribute = statusAttribute, .key = name});
        for (const RouteType type : routeTypes)
            if (L3::VrfName::whyUnusable(name).empty())
                add({.op = op, .path = operations_.host().routes().tablePath(name, type)});
        return;
    }
    const bool isNew = !idOf(name);
    const bool hasId = words.accept("id");
    if (hasId || isNew) {
        const std::uint64_t id = hasId ? words.number("an identifier", UINT32_MAX) : 0;
        add({.path = RouteStatus::path,
             .attribute = statusAttribute,
             .key = name,
             .value = Datum::Record{{idField, id}}});
    }
    if (!words.accept("multicast"))
        return;
    const bool isOn = words.onOff("multicast");
    for (const RouteType type : routeTypes)
        if (isOn)
            add({.path = operations_.host().routes().tablePath(name, type)});
    add({.path = VrfEnabledStatus::path, .attribute = "vrfEnabled", .key = name, .value = isOn});
}

void StateCommands::route(WordReader& words, Op op) {
    DraftedRoute route{.vrf = words.word("a VRF's name"),
                       .type = routeType(words),
                       .key = Datum::Record{{"source", prefix(words, "a source, as 10.0.0.1/32 or any")},
                                            {"group", prefix(words, "a group, as 239.1.1.1/32")}}};
    if (op == Op::del) {
        add({.op = op,
             .path = operations_.host().routes().tablePath(route.vrf, route.type),
             .attribute = "route",
             .key = std::move(route.key)});
        return;
    }
    words.expect("oifs");
    while (!words.atEnd() && route.isReady)
        if (words.accept("not-ready"))
            route.isReady = false;
        else if (!words.accept("none"))
            route.oifs.push_back(words.word("an interface"));
    for (Change& change : draft_->changes(route))
        add(std::move(change));
}

NamedRequest StateCommands::request(WordReader& words) const {
    const Service& service = services()[words.oneOf("a service", Text::namesOf(services(), &Service::name))];
    Datum::Record key{{"intf", words.expect("intf").word("an interface")},
                      {idField, std::uint64_t{readVrfId(words.expect("vrf"))}},
                      {"vlanId", words.expect("vlan").number("a VLAN", UINT16_MAX)},
                      {"sourceIp", address(words.expect("source"), "a source, as 10.0.0.1 or any")},
                      {"groupIp", address(words.expect("group"), "a group, as 239.1.1.1 or any")}};
    const auto type = static_cast<std::uint64_t>(service.requestType);
    key.emplace_back("type", words.accept("type") ? words.number("a request type", UINT8_MAX) : type);
    return {.service = &service, .key = std::move(key)};
}

void StateCommands::request(WordReader& words, Op op) {
    NamedRequest named = request(words);
    add({.op = op,
         .path = named.service->requestPath,
         .attribute = std::string(named.service->requestAttribute),
         .key = std::move(named.key)});
}

void StateCommands::group(WordReader& words, Op op) {
    // The group tables have room for the low 16 bits of the identifier.
    Change change{.op = op,
                  .path = MgroupColl::path,
                  .attribute = "mgroups",
                  .key = Datum::Record{{idField, std::uint64_t{readVrfId(words) & 0xffffU}},
                                       {"source", address(words, "a source")},
                                       {"group", address(words, "a group")},
                                       {"vlanId", words.expect("vlan").number("a VLAN", UINT16_MAX)}}};
    if (op == Op::set)
        change.value = Datum::Record{{"groupId", words.expect("id").number("a group id", UINT32_MAX)}};
    add(std::move(change));
}

void StateCommands::egress(WordReader& words, Op /*op*/) {
    add({.path = CapabilityConfig::path,
         .attribute = "egressFromAllVrfs",
         .value = words.expect("all").onOff("egress all")});
}

void StateCommands::set(WordReader& words, Op /*op*/) {
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

void StateCommands::del(WordReader& words, Op /*op*/) {
    Change change{.op = Op::del, .path = words.word("a path")};
    if (!words.atEnd()) {
        change.attribute = words.word("an attribute");
        change.key = datumOfWord(words.word("a key"));
    }
    add(std::move(change));
}

std::uint32_t StateCommands::readVrfId(WordReader& words) const {
    const std::string name = words.word("a VRF's name");
    if (const auto id = idOf(name); GuardFacts::isIdentified(name, id))
        return *id;
    const auto number = WordReader::numberIn(name, UINT32_MAX);
    if (!number)
        words.refuseLast("VRF '" + name + "' has no identifier");
    return static_cast<std::uint32_t>(*number);
}

} // namespace Agent
