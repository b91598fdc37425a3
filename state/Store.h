// A store of entities by slash-separated path: the state database, the shared-memory table store and the
// shared-memory entity store are each one. Stores belong to the agent, which makes, reads, writes and lists
// what is in them at any time. A plug-in sees them through the entity managers (state/EntityManager.h).
#pragma once

#include "state/Entity.h"
#include "state/Table.h"

#include <string>
#include <string_view>

namespace State {

class Store : public RefCounted {
  public:
    using Item = MapEntry<std::string, Handle<Entity>>; // path, entity

    /// `name` stands in messages ("the table store").
    explicit Store(std::string_view name);

    const std::string& name() const { return name_; }
    /// The entity at the path, or null.
    Handle<Entity> entity(std::string_view path) const;
    /// The entity at the path, made with its path's last component as its name if there is none. Errors:
    /// UnknownTypeError; CreationError if one of another type is there.
    Handle<Entity> entityIs(std::string_view path, std::string_view typeName);
    /// Puts `entity`, which is not null, at the path, replacing what is there.
    void entityIs(std::string_view path, Handle<Entity> entity);
    /// Takes away what is at the path; absent is no error. Handles to it stay live.
    void entityDel(std::string_view path);
    /// All items (key: path, value: entity), in order of creation.
    auto entities() const { return items_.walk(); }

  private:
    struct PathOf {
        const std::string& operator()(const Item& item) const { return item.key; }
    };

    std::string name_;
    Table<Item, PathOf> items_;
};

} // namespace State
