#include "agent/changes/Operations.h"

#include "agent/changes/Answers.h"
#include "agent/changes/ForkedRun.h"
#include "agent/host/Refusal.h"
#include "state/Errors.h"
#include "state/Trace.h"

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
    const State::Attribute* attribute = place.type->attribute(name);
    if (attribute != nullptr)
        return *attribute;
    std::string message = name.empty() ? "an attribute must be named" : "there is no attribute \"";
    message += name.empty() ? "" : std::string(name) + "\"";
    message += "; " + std::string(place.type->name()) + " at " + std::string(place.path) + " has ";
    std::string_view separator;
    for (const auto& known : place.type->attributes()) {
        message += std::string(separator) + std::string(known->name());
        separator = ", ";
    }
    refuse(place.path, name, "attribute", message);
}

// Finds a member; what is wrong with the key comes out as an error.
std::optional<Datum> findMember(const Paths& paths, const Place& place, const State::Attribute& attribute,
                                const Datum& key) {
    // An entity that is not there holds nothing, but the key is held against its type all the same.
    const State::Handle<State::Entity> entity = place.entity ? place.entity : paths.made(place);
    return attribute.find(*entity, key);
}

// Which part of a change the types refuse.
std::string fieldOf(const Paths& paths, const Place& place, const State::Attribute& attribute,
                    const Change& change, const State::Error& error) {
    const auto* parseError = dynamic_cast<const State::ParseError*>(&error);
    if (parseError != nullptr && !parseError->attribute().empty())
        return parseError->attribute();
    if (change.key) {
        try {
            findMember(paths, place, attribute, *change.key);
        } catch (const State::Error&) {
            return "key";
        }
    }
    return "value";
}

// Holds a change against the shape of its attribute: what must be given, and what must not.
void checkParts(const Change& change, const State::Attribute& attribute) {
    const bool isSet = change.op == Change::Op::set;
    const bool isCollection = attribute.kind() != AttributeKind::value;
    const auto wrong = [&](std::string_view field, std::string_view what) {
        refuse(change.path, change.attribute, field, std::string(attribute.name()) + " " + std::string(what));
    };
    if (isCollection && !change.key)
        wrong("key", "is a collection: the member's key must be given");
    else if (!isCollection && change.key)
        wrong("key", "is a single value: it has no key");
    else if (!isCollection && !isSet)
        wrong("attribute", "is a single value: it can be set, not removed");
    else if (change.value && !isSet)
        wrong("value", "is removed by its key alone");
    else if (isSet && !change.value && (attribute.kind() == AttributeKind::map || !isCollection))
        wrong("value", "must be given a value");
    else if (isSet && change.value && !change.value->isNull() && attribute.kind() == AttributeKind::set)
        wrong("value", "is a set: its members are keys without values");
}

const Datum* pointerTo(const std::optional<Datum>& datum) {
    return datum ? &*datum : nullptr;
}

class PageReader final : public State::MemberVisitor {
  public:
    PageReader(Page& page, std::size_t limit)
        : page_(page)
        , limit_(limit) {}
    bool member(const Datum& key, const Datum& value) override {
        page_.members.emplace_back(key, value);
        return page_.members.size() < limit_;
    }

  private:
    Page& page_;
    std::size_t limit_;
};

} // namespace

Operations::Operations(Host& host)
    : host_(host)
    , paths_(host.stores())
    , guards_(host) {}

const State::EntityType& Operations::typeAt(std::string_view path) const {
    return *paths_.at(path).type;
}

const State::Attribute& Operations::attributeAt(std::string_view path, std::string_view attribute) const {
    return attributeOf(paths_.at(path), attribute);
}

std::optional<Datum> Operations::value(std::string_view path, std::string_view name, const Datum* key) const {
    const Place place = paths_.at(path);
    const State::Attribute& attribute = attributeOf(place, name);
    const bool isCollection = attribute.kind() != AttributeKind::value;
    if (isCollection != (key != nullptr)) {
        refuse(path, name, "key",
               std::string(name) + (isCollection ? " is a collection: one value of it has a key"
                                                 : " is a single value: it has no key"));
    }
    if (!isCollection)
        return place.entity ? std::optional(attribute.value(*place.entity)) : std::nullopt;
    try {
        return findMember(paths_, place, attribute, *key);
    } catch (const State::Error& error) {
        refuse(path, name, fieldOf(paths_, place, attribute, {.key = *key}, error), error.what());
    }
}

Page Operations::members(std::string_view path, std::string_view name, const Datum* after,
                         std::size_t limit) const {
    const Place place = paths_.at(path);
    const State::Attribute& attribute = attributeOf(place, name);
    if (attribute.kind() == AttributeKind::value)
        refuse(path, name, "attribute", std::string(name) + " is a single value, no collection");
    try {
        if (after != nullptr && !findMember(paths_, place, attribute, *after))
            refuse(path, name, "after", "there is no such member any more to go on after: begin again");
    } catch (const State::Error& error) {
        refuse(path, name, "after", error.what());
    }
    Page page;
    if (place.entity) {
        page.size = attribute.size(*place.entity);
        if (limit > 0) {
            PageReader reader(page, limit);
            attribute.walk(*place.entity, after, reader);
        }
    }
    return page;
}

void Operations::checkOne(const Change& change, GuardFacts& facts) {
    const Place place = paths_.at(change.path);
    if (change.attribute.empty()) {
        const bool isTable = place.kind() == PathKind::routeTable || place.kind() == PathKind::routeTables;
        if (!isTable || change.op != Change::Op::set || change.key || change.value)
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
            refuse(change.path, change.attribute, fieldOf(paths_, place, attribute, change, error),
                   error.what());
        }
    }
    if (!change.raw) {
        try {
            guards_.check(change, place, facts);
        } catch (const Refusal& error) {
            ++counters_.refused;
            TRACE(8, "Operations::", "checkOne", " refused: ", std::string(error.what()));
            throw;
        }
    }
    facts.note(change, place);
}

GuardFacts Operations::checkAll(std::span<const Change> changes) {
    GuardFacts facts = guards_.facts();
    for (std::size_t i = 0; i < changes.size(); ++i) {
        try {
            checkOne(changes[i], facts);
        } catch (Refusal& error) {
            error.where().index = i;
            throw;
        }
    }
    return facts;
}

bool Operations::carryOut(const Change& change) {
    const Place place = paths_.at(change.path);
    const State::Attribute* attribute = place.type->attribute(change.attribute);
    bool changed = false;
    if (change.op == Change::Op::del) {
        changed = place.entity && attribute->del(*place.entity, *change.key);
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
    GuardFacts facts = guards_.facts();
    checkOne(change, facts);
    const bool changed = carryOut(change);
    guards_.carriedOut(facts);
    return changed;
}

ApplyResult Operations::apply(std::span<const Change> changes) {
    const GuardFacts facts = checkAll(changes);
    ApplyResult result = carryOutAll(changes);
    guards_.carriedOut(facts);
    return result;
}

void Operations::check(std::span<const Change> changes) {
    checkAll(changes);
}

ApplyResult Operations::carryOutAll(std::span<const Change> changes) {
    const AnswerCollector collector(host_.stores());
    ApplyResult result;
    for (const Change& change : changes)
        result.changed += carryOut(change) ? 1 : 0;
    result.answers = collector.changes();
    return result;
}

DryRunResult Operations::dryRun(std::span<const Change> changes,
                                const std::function<std::string(const ApplyResult&)>& tell) {
    checkAll(changes);
    ForkedResult run =
        runForked([&] { return tell(carryOutAll(changes)); }, std::chrono::milliseconds(dryRunLimitMs));
    if (run.isOverdue)
        throw Refusal(RefusalKind::limit, "the dry run took more than " +
                                              std::to_string(dryRunLimitMs / 1000) +
                                              " seconds and was ended");
    return {.told = std::move(run.result), .fatal = std::move(run.end)};
}

std::optional<std::uint32_t> Operations::vrfIdOf(std::string_view vrfName) const {
    const std::optional<std::uint32_t> id = guards_.facts().vrf(vrfName).id;
    return GuardFacts::isIdentified(vrfName, id) ? id : std::nullopt;
}

std::optional<std::string> Operations::vrfNameOf(std::uint32_t vrfId) const {
    return guards_.facts().holderOf(vrfId, {});
}

} // namespace Agent
