#include "state/Store.h"

#include "state/Collection.h"
#include "state/Errors.h"

namespace State {

Store::Store(std::string_view name)
    : name_(name)
    , items_(processHashSeed() ^ seedConstant("State::Store::entities")) {}

Handle<Entity> Store::entity(std::string_view path) const {
    const Item* item = items_.find(std::string(path));
    return item == nullptr ? Handle<Entity>() : item->value;
}

Handle<Entity> Store::entityIs(std::string_view path, std::string_view typeName) {
    if (Handle<Entity> present = entity(path)) {
        if (present->entityType().name() != typeName) {
            throw CreationError(name_ + " holds a " + std::string(present->entityType().name()) + " at " +
                                std::string(path) + ", not a " + std::string(typeName));
        }
        return present;
    }
    const EntityType* type = EntityType::find(typeName);
    if (type == nullptr)
        throw UnknownTypeError(typeName);
    Handle<Entity> made = type->create(path.substr(path.rfind('/') + 1));
    entityIs(path, made);
    return made;
}

void Store::entityIs(std::string_view path, Handle<Entity> entity) {
    const std::string key(path);
    items_.findOrInsert(key, [&] { return Item{key, {}}; }).first->value = std::move(entity);
}

void Store::entityDel(std::string_view path) {
    items_.erase(std::string(path));
}

} // namespace State
