#include "state/Entity.h"

#include "state/Errors.h"
#include "state/Value.h"

#include <algorithm>

namespace State {

namespace {

std::vector<const EntityType*>& registeredTypes() {
    static std::vector<const EntityType*> types;
    return types;
}

} // namespace

void Attribute::unsupported(std::string_view operation) const {
    throw ParseError("attribute " + std::string(name_) + " cannot be " + std::string(operation));
}

std::size_t Attribute::size(const Entity&) const {
    return 1;
}
Datum Attribute::value(const Entity&) const {
    unsupported("read as one value");
}
std::optional<Datum> Attribute::find(const Entity&, const Datum&) const {
    unsupported("read by key");
}
void Attribute::walk(const Entity&, const Datum*, const MemberVisitor&) const {
    unsupported("walked");
}
bool Attribute::del(Entity&, const Datum&) const {
    unsupported("removed");
}
Handle<Entity> Attribute::member(const Entity&, const Datum&) const {
    return {};
}
Handle<Entity> Attribute::memberMade(const Entity&, const Datum&) const {
    unsupported("given a member");
}
void Attribute::memberIs(Entity&, const Datum&, const Handle<Entity>&) const {
    unsupported("given a member");
}

EntityType::EntityType(std::string_view name, Create creator,
                       std::vector<std::unique_ptr<const Attribute>> attributes)
    : name_(name)
    , creator_(creator)
    , attributes_(std::move(attributes)) {
    registeredTypes().push_back(this);
}

const Attribute* EntityType::attribute(std::string_view name) const {
    const auto found = std::find_if(attributes_.begin(), attributes_.end(),
                                    [&](const auto& attribute) { return attribute->name() == name; });
    return found == attributes_.end() ? nullptr : found->get();
}

const Attribute* EntityType::attribute(AttributeId id) const {
    const auto found = std::find_if(attributes_.begin(), attributes_.end(),
                                    [&](const auto& attribute) { return attribute->id() == id; });
    return found == attributes_.end() ? nullptr : found->get();
}

Handle<Entity> EntityType::create(std::string_view name) const {
    if (creator_ == nullptr)
        throw CreationError(name_ + " is made only as a member of another entity");
    return creator_(name);
}

void EntityType::checkFields(const Datum& fields) const {
    if (fields.isNull())
        return;
    if (fields.record() == nullptr)
        wrongKind(name_, "an object", fields);
    for (const auto& [given, content] : *fields.record()) {
        const Attribute* known = attribute(given);
        if (known == nullptr)
            throw ParseError(name_ + " has no attribute \"" + given + "\"");
        try {
            known->check(nullptr, &content);
        } catch (const Error& error) {
            throw ParseError(name_, given, error.what());
        }
    }
}

bool EntityType::setFields(Entity& entity, const Datum& fields) const {
    checkFields(fields);
    bool changed = false;
    if (fields.record() != nullptr) {
        for (const auto& attribute : attributes_) {
            for (const auto& [given, content] : *fields.record())
                if (given == attribute->name())
                    changed |= attribute->set(entity, nullptr, &content);
        }
    }
    return changed;
}

Datum EntityType::fields(const Entity& entity) const {
    Datum::Record record;
    for (const auto& attribute : attributes_)
        if (attribute->kind() == AttributeKind::value)
            record.emplace_back(std::string(attribute->name()), attribute->value(entity));
    return Datum(std::move(record));
}

const EntityType* EntityType::find(std::string_view name) {
    for (const EntityType* type : registeredTypes())
        if (type->name() == name)
            return type;
    return nullptr;
}

const std::vector<const EntityType*>& EntityType::all() {
    return registeredTypes();
}

} // namespace State
