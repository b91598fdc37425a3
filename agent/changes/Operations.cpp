#include "agent/changes/Operations.h"

#include "state/Errors.h"
#include "state/Fatal.h"
#include "state/Trace.h"
#include "text/Words.h"

#include <new>
#include <unordered_map>

TRACE_FACILITY("Agent");

namespace Agent {

namespace {

using State::AttributeKind;
using State::Datum;

[[noreturn]] void refuse(std::string_view path, std::string_view attribute, std::string_view field,
                         const std::string& message) {
    throw Refusal(
        message,
        {.path = std::string(path), .attribute = std::string(attribute), .field = std::string(field)});
}

const State::Attribute& attributeOf(const Place& place, std::string_view name) {
    if (const State::Attribute* attribute = place.type->attribute(name))
        return *attribute;
    const auto known = Text::namesOf(place.type->attributes(), [](const auto& each) { return each->name(); });
    refuse(place.path, name, "attribute",
           (name.empty() ? "an attribute must be named"
                         : "there is no attribute \"" + std::string(name) + "\"") +
               "; " + std::string(place.type->name()) + " at " + std::string(place.path) + " has " +
               Text::joined(known, ", "));
}

// Refuses what an attribute's types refuse. @param part of the change, where the error names no field.
[[noreturn]] void refuseFor(const State::Error& error, const Place& place, const State::Attribute& attribute,
                            std::string_view part) {
    const auto* parseError = dynamic_cast<const State::ParseError*>(&error);
    const bool namesField = parseError != nullptr && !parseError->attribute().empty();
    refuse(place.path, attribute.name(), namesField ? parseError->attribute() : part, error.what());
}

// Finds a member; refuses a key that is none.
std::optional<Datum> findMember(const Paths& paths, const Place& place, const State::Attribute& attribute,
                                const Datum& key) {
    try {
        // An entity that is not there holds nothing, but the key is held against its type all the same.
        return attribute.find(place.entity ? *place.entity : *paths.made(place), key);
    } catch (const State::Error& error) {
        refuseFor(error, place, attribute, "key");
    }
}

// Holds a change against the shape of its attribute: what must be given, and what must not.
void checkParts(const Change& change, const State::Attribute& attribute) {
    const bool isSet = change.op == Change::Op::set;
    const bool isCollection = attribute.kind() != AttributeKind::value;
    const auto require = [&](bool isRight, std::string_view field, std::string_view what) {
        if (!isRight)
            refuse(change.path, change.attribute, field,
                   std::string(attribute.name()) + " " + std::string(what));
    };
    require(!isCollection || change.key, "key", "is a collection: the member's key must be given");
    require(isCollection || !change.key, "key", "is a single value: it has no key");
    require(isCollection || isSet, "attribute", "is a single value: it can be set, not removed");
    require(isSet || !change.value, "value", "is removed by its key alone");
    const bool takesValue = attribute.kind() == AttributeKind::map || !isCollection;
    require(!isSet || change.value || !takesValue, "value", "must be given a value");
    const bool isBare = !change.value || change.value->isNull() || attribute.kind() != AttributeKind::set;
    require(!isSet || isBare, "value", "is a set: its members are keys without values");
}

} // namespace

Operations::Operations(Host& host)
    : host_(host)
    , paths_(host.stores())
    , names_(host.stores()) {}

const State::EntityType& Operations::typeAt(std::string_view path) const {
    return *paths_.at(path).type;
}

const State::Attribute& Operations::attributeAt(std::string_view path, std::string_view attribute) const {
    return attributeOf(paths_.at(path), attribute);
}

// Who asks, and what is refused, enters no interface names: all but carrying out is done under Asking.
using Asking = L3::IntfId::Provisional;

std::optional<Datum> Operations::value(std::string_view path, std::string_view name, const Datum* key) const {
    const Asking asking;
    const Place place = paths_.at(path);
    const State::Attribute& attribute = attributeOf(place, name);
    const bool isCollection = attribute.kind() != AttributeKind::value;
    if (isCollection != (key != nullptr)) {
        refuse(path, name, "key",
               std::string(name) + (isCollection ? " is a collection: one value of it has a key"
                                                 : " is a single value: it has no key"));
    }
    if (isCollection)
        return findMember(paths_, place, attribute, *key);
    return place.entity ? std::optional(attribute.value(*place.entity)) : std::nullopt;
}

std::size_t Operations::eachMember(std::string_view path, std::string_view name, const Datum* after,
                                   const State::MemberVisitor& visit) const {
    const Asking asking;
    const Place place = paths_.at(path);
    const State::Attribute& attribute = attributeOf(place, name);
    if (attribute.kind() == AttributeKind::value)
        refuse(path, name, "attribute", std::string(name) + " is a single value, no collection");
    if (after != nullptr && !findMember(paths_, place, attribute, *after))
        refuse(path, name, "after", "there is no such member any more to go on after: begin again");
    if (!place.entity)
        return 0;
    attribute.walk(*place.entity, after, visit);
    return attribute.size(*place.entity);
}

void Operations::checkOne(const Change& change, GuardFacts& facts) {
    const Place place = paths_.at(change.path);
    if (change.attribute.empty()) {
        const bool isTable =
            place.kind() == PathKind::routeTable || (place.kind() == PathKind::routeTables &&
                                                     change.op == Change::Op::set); // that the plug-in mounts
        if (!isTable || change.key || change.value)
            attributeOf(place, change.attribute); // refuses it
    } else {
        const State::Attribute& attribute = attributeOf(place, change.attribute);
        checkParts(change, attribute);
        try {
            if (change.op == Change::Op::set)
                attribute.check(pointerTo(change.key), pointerTo(change.value));
            else
                findMember(paths_, place, attribute, *change.key);
        } catch (const State::Error& error) {
            if (change.key)
                findMember(paths_, place, attribute, *change.key); // refuses it if the key is what is wrong
            refuseFor(error, place, attribute, "value");
        }
    }
    if (!change.raw) {
        try {
            checkGuards(change, place, facts);
        } catch (const Refusal& error) {
            ++counters_.refused;
            TRACE(8, "Operations::", "checkOne", " refused: ", std::string(error.what()));
            throw;
        }
    }
    facts.note(change, place);
}

// All that comes in front of carrying out, so that this finds room for every name.
GuardMemory Operations::checkAll(std::span<const Change> changes) {
    return names_.roomFor([&] { return checkEach(changes); });
}

GuardMemory Operations::checkEach(std::span<const Change> changes) {
    const Asking asking;
    GuardFacts facts = this->facts();
    for (std::size_t i = 0; i < changes.size(); ++i) {
        try {
            checkOne(changes[i], facts);
        } catch (Refusal& error) {
            if (changes[i].line != 0)
                error.where().line = changes[i].line;
            else
                error.where().index = i;
            throw;
        }
    }
    return facts.memory();
}

// What needs memory from here on can't be undone, in the plug-in least of all.
bool Operations::carryOut(const Change& change) {
    try {
        return carryOutChecked(change);
    } catch (const std::bad_alloc&) {
        FATAL_ASSERT(false, "memory for a change that is being carried out");
    }
}

bool Operations::carryOutChecked(const Change& change) {
    const Place place = paths_.at(change.path);
    const State::Attribute* attribute = place.type->attribute(change.attribute);
    bool changed = false;
    if (change.op == Change::Op::del) {
        const Asking asking; // what isn't there may be named by the key
        changed = static_cast<bool>(place.entity);
        if (changed && attribute == nullptr)
            paths_.remove(place);
        else if (changed)
            changed = attribute->del(*place.entity, *change.key);
    } else if (place.entity) {
        changed = attribute != nullptr &&
                  attribute->set(*place.entity, pointerTo(change.key), pointerTo(change.value));
    } else {
        const State::Handle<State::Entity> made = paths_.made(place);
        if (attribute != nullptr)
            attribute->set(*made, pointerTo(change.key), pointerTo(change.value));
        paths_.enter(place, made);
        changed = true;
    }
    counters_.changes += changed ? 1 : 0;
    return changed;
}

bool Operations::change(const Change& change) {
    GuardMemory memory = names_.roomFor([&] {
        const Asking asking;
        GuardFacts facts = this->facts();
        checkOne(change, facts);
        return facts.memory();
    });
    const bool changed = carryOut(change);
    guardMemory_ = std::move(memory);
    return changed;
}

ApplyResult Operations::apply(std::span<const Change> changes) {
    GuardMemory memory = checkAll(changes);
    ApplyResult result = carryOutAll(changes);
    guardMemory_ = std::move(memory);
    return result;
}

void Operations::check(std::span<const Change> changes) {
    checkAll(changes);
}

ApplyResult Operations::carryOutAll(std::span<const Change> changes) {
    ApplyResult result;
    // Where in the result each answer is, by service.
    std::vector<std::unordered_map<RequestKey, std::size_t, RequestKeyHash>> places(services().size());
    const AnswerListener listener(host_.stores(), [&](AnswerChange change) {
        const auto [place, isFirst] =
            places[change.service->index()].try_emplace(change.key, result.answers.size());
        if (isFirst)
            result.answers.push_back(std::move(change));
        else
            result.answers[place->second] = std::move(change);
    });
    for (const Change& change : changes)
        result.changed += carryOut(change) ? 1 : 0;
    return result;
}

} // namespace Agent
