#include "state/EntityManager.h"

#include "state/Errors.h"

namespace State {

MountFlags mountFlags(std::string_view letters) {
    std::uint32_t word = 0;
    for (const char letter : letters) {
        if (letter != 'r')
            throw ParseError("mount flags \"" + std::string(letters) + "\": unknown flag '" + letter + "'");
        word |= static_cast<std::uint32_t>(MountFlags::readOnly);
    }
    return static_cast<MountFlags>(word);
}

void MountGroup::doMount(const Mount& mount) {
    if (closed_)
        throw CreationError("mount of " + mount.path + ": the mount group is closed");
    mounts_.push_back(mount);
}

void MountGroup::doClose(bool wait, std::string_view text, std::chrono::seconds duration) {
    closed_ = true;
    wait_ = wait;
    text_ = text;
    duration_ = duration;
}

EntityManager::EntityManager(Handle<Store> database)
    : database_(std::move(database)) {}

MountGroup& EntityManager::getMountGroup(const KestrelLib::MounterBase& mounter) {
    return groups_[&mounter];
}

Handle<Entity> EntityManager::getEntity(std::string_view path) const {
    for (const auto& [mounter, group] : groups_) {
        for (const Mount& mount : group.mounts())
            if (mount.path == path && performed_.find(path) == performed_.end())
                return {};
    }
    return database_->entity(path);
}

MountStatus EntityManager::performMounts(const KestrelLib::MounterBase& mounter) {
    MountStatus status;
    for (const Mount& mount : groups_[&mounter].mounts()) {
        const Handle<Entity> entity = database_->entity(mount.path);
        if (!entity) {
            status.failures.push_back({mount.path, "nothing is there"});
        } else if (entity->entityType().name() != mount.typeName) {
            status.failures.push_back({mount.path, "a " + std::string(entity->entityType().name()) +
                                                       " is there, not a " + mount.typeName});
        } else {
            performed_.insert(mount.path);
        }
    }
    return status;
}

} // namespace State
