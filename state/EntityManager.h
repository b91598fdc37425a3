// What a plug-in sees of the state database: the entities of the agent itself and those that its mounts
// brought in. The agent makes one over its database, hands it to the mounter, performs the mount groups and
// completes them.
#pragma once

#include "state/Mount.h"
#include "state/Store.h"

#include <map>
#include <set>
#include <string>
#include <string_view>

namespace KestrelLib {
class MounterBase;
}

namespace State {

class EntityManager : public RefCounted {
  public:
    explicit EntityManager(Handle<Store> database);

    /// The mount group of this mounter, made on first use. It goes with the mounter.
    MountGroup& getMountGroup(const KestrelLib::MounterBase& mounter);
    /// The mounter goes, and what it declared with it.
    void mountGroupDel(const KestrelLib::MounterBase& mounter) { groups_.erase(&mounter); }

    /// The entity at the path, or null. A path that a mount group declares is null until the group was
    /// performed.
    Handle<Entity> getEntity(std::string_view path) const;

    /// The entity at the path as a T; null when there is none or it is of another type.
    template <class T>
    Handle<T> entity(std::string_view path) const {
        return handleCast<T>(getEntity(path));
    }

    /// The agent's side: performs the mounts of a mounter's group. A mount fails if the database holds nothing
    /// at its path, or something of another type; the others are performed all the same.
    MountStatus performMounts(const KestrelLib::MounterBase& mounter);

  private:
    Handle<Store> database_;
    std::map<const KestrelLib::MounterBase*, MountGroup> groups_;
    std::set<std::string, std::less<>> performed_; // paths of mounts that succeeded
};

} // namespace State
