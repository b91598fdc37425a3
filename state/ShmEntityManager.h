// What a plug-in sees of the two shared-memory stores: the tables and entities at the paths that it has
// mounted. Mounting is accepted again and again; unmounting is absolute, not counted. Handles stay live and
// contents stay in their stores whatever is mounted.
#pragma once

#include "state/Mount.h"
#include "state/Store.h"

#include <string>
#include <string_view>

namespace State {

class ShmEntityManager : public RefCounted {
  public:
    ShmEntityManager(Handle<Store> tableStore, Handle<Store> entityStore);

    /// Mounts a table. Mode 0 makes it in the table store if nothing is there and applies the sizings; the other
    /// modes make nothing. UnknownTypeError in mode 0.
    virtual void doMount(std::string_view path, std::string_view typeName, const TableMount& mount);
    /// Mounts an entity of the entity store; makes nothing.
    virtual void doMount(std::string_view path, std::string_view typeName, const EntityMount& mount);
    /// Releases the mount at the path; one that is not mounted is accepted.
    virtual void doUnmount(std::string_view path);

    /// The table or entity that is mounted at the path, or null: not mounted, not there, or not of the mount's
    /// type.
    Handle<Entity> getEntity(std::string_view path) const;
    template <class T>
    Handle<T> entity(std::string_view path) const {
        return handleCast<T>(getEntity(path));
    }

    /// Checks that `entity` is what is mounted at the path, so that it may be read now; ends the process
    /// otherwise.
    void assertSafeToAccess(const Entity* entity, std::string_view path) const;

    bool mounted(std::string_view path) const;

  private:
    struct Mounted {
        std::string typeName;
        bool table;
    };
    using Entry = MapEntry<std::string, Mounted>;
    struct PathOf {
        const std::string& operator()(const Entry& entry) const { return entry.key; }
    };

    void mountedIs(std::string_view path, Mounted mount);

    Handle<Store> tableStore_;
    Handle<Store> entityStore_;
    Table<Entry, PathOf> mounted_;
};

} // namespace State
