#include "state/ShmEntityManager.h"

#include "state/Collection.h"
#include "state/Errors.h"
#include "state/Fatal.h"
#include "state/ShmTable.h"

namespace State {

ShmEntityManager::ShmEntityManager(Handle<Store> tableStore, Handle<Store> entityStore)
    : tableStore_(std::move(tableStore))
    , entityStore_(std::move(entityStore))
    , mounted_(processHashSeed() ^ seedConstant("State::ShmEntityManager::mounted")) {}

void ShmEntityManager::doMount(std::string_view path, std::string_view typeName, const TableMount& mount) {
    const Handle<Entity> present = tableStore_->entity(path);
    if (mount.mode == 0 && (!present || present->entityType().name() == typeName)) {
        if (const auto table = handleCast<ShmTable>(tableStore_->entityIs(path, typeName)))
            table->sizingIs(mount);
    }
    mountedIs(path, {std::string(typeName), true});
}

void ShmEntityManager::doMount(std::string_view path, std::string_view typeName, const EntityMount&) {
    mountedIs(path, {std::string(typeName), false});
}

void ShmEntityManager::doUnmount(std::string_view path) {
    mounted_.erase(std::string(path));
}

Handle<Entity> ShmEntityManager::getEntity(std::string_view path) const {
    const Entry* entry = mounted_.find(std::string(path));
    if (entry == nullptr)
        return {};
    const Mounted& mount = entry->value;
    Handle<Entity> entity = (mount.table ? tableStore_ : entityStore_)->entity(path);
    return entity && entity->entityType().name() == mount.typeName ? entity : Handle<Entity>();
}

void ShmEntityManager::assertSafeToAccess(const Entity* entity, std::string_view path) const {
    const char* why = entity == nullptr                 ? "there is no entity"
                      : !mounted(path)                  ? "the path is not mounted"
                      : getEntity(path).get() != entity ? "another entity is mounted there"
                                                        : nullptr;
    if (why != nullptr) {
        const std::string_view typeName = entity == nullptr ? "entity" : entity->entityType().name();
        fatal(unsafeAccessText(typeName, path, why).c_str(), __FILE__, __LINE__, __PRETTY_FUNCTION__);
    }
}

bool ShmEntityManager::mounted(std::string_view path) const {
    return mounted_.find(std::string(path)) != nullptr;
}

void ShmEntityManager::mountedIs(std::string_view path, Mounted mount) {
    const std::string key(path);
    mounted_.erase(key);
    mounted_.findOrInsert(key, [&] { return Entry{key, std::move(mount)}; });
}

} // namespace State
