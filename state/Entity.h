// Entities and their reflection. An Entity is a publisher with attributes that others can read and write
// without knowing its type: its EntityType lists them. The host agent's reads, writes and schema work from
// that alone. The lists are made with state/Attribute.h, each in its entity's .cpp; types are found by name.
#pragma once

#include "state/Datum.h"
#include "state/Publisher.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace State {

class EntityType;
struct ValueType;

class Entity : public Publisher {
  public:
    virtual const EntityType& entityType() const = 0;
};

enum class AttributeKind {
    value,   // one value
    set,     // keys
    map,     // key to value
    members, // key to entity
};

/// Receives a member of a collection: its key, and its value (null for a set); false ends the walk.
using MemberVisitor = std::function<bool(const Datum& key, const Datum& value)>;

/// One attribute of an entity type. Keys and values are plain data, held against the attribute's types: what
/// does not fit raises ParseError or RangeError and changes nothing. Operations that a kind does not have
/// raise ParseError.
class Attribute {
  public:
    virtual ~Attribute() = default;
    Attribute(const Attribute&) = delete;
    Attribute& operator=(const Attribute&) = delete;

    std::string_view name() const { return name_; }
    AttributeId id() const { return id_; }
    AttributeKind kind() const { return kind_; }
    /// Null where the kind has none: the key's type; the value's type; the members' entity type.
    virtual const ValueType* keyType() const { return nullptr; }
    virtual const ValueType* valueType() const { return nullptr; }
    virtual const EntityType* memberType() const { return nullptr; }

    /// Members of a collection; 1 for a value.
    virtual std::size_t size(const Entity& entity) const;
    /// The value of a value attribute.
    virtual Datum value(const Entity& entity) const;
    /// The value of a member (null for a set's); nothing when absent.
    virtual std::optional<Datum> find(const Entity& entity, const Datum& key) const;
    /// Visits members in iteration order, behind `after` if that is given.
    virtual void walk(const Entity& entity, const Datum* after, const MemberVisitor& visit) const;
    /// Raises what `set` would raise for types and ranges; changes nothing.
    virtual void check(const Datum* key, const Datum* value) const = 0;
    /// Writes a value or a member; true if something changed. A member entity is made and filled in before it
    /// is inserted; an existing one is changed in place, field by field in declared order, its version last.
    virtual bool set(Entity& entity, const Datum* key, const Datum* value) const = 0;
    /// Removes a member; true if it was there.
    virtual bool del(Entity& entity, const Datum& key) const;
    /// The member entity, or null.
    virtual Handle<Entity> member(const Entity& entity, const Datum& key) const;
    /// Makes a member entity of `owner` from its key, without inserting it.
    virtual Handle<Entity> memberMade(const Entity& owner, const Datum& key) const;
    /// Inserts, or puts in place of the one there, a member that memberMade has made from this key.
    virtual void memberIs(Entity& owner, const Datum& key, const Handle<Entity>& member) const;

  protected:
    Attribute(std::string_view name, AttributeId id, AttributeKind kind)
        : name_(name)
        , id_(id)
        , kind_(kind) {}
    /// Raises ParseError: the attribute, being of its kind, takes no such operation.
    [[noreturn]] void unsupported(std::string_view operation) const;

  private:
    std::string_view name_;
    AttributeId id_;
    AttributeKind kind_;
};

/// Run-time description of an entity type.
class EntityType {
  public:
    using Create = Handle<Entity> (*)(std::string_view name);

    /// `creator` makes an entity with a name, or is null for a type that is only made as a member of another.
    EntityType(std::string_view name, Create creator,
               std::vector<std::unique_ptr<const Attribute>> attributes);

    std::string_view name() const { return name_; }
    const std::vector<std::unique_ptr<const Attribute>>& attributes() const { return attributes_; }
    /// The attribute called `name`, or null.
    const Attribute* attribute(std::string_view name) const;
    const Attribute* attribute(AttributeId id) const;
    /// Makes an entity called `name`; CreationError for a type without a creator.
    Handle<Entity> create(std::string_view name) const;

    /// Held against the attributes: a record of fields, or nothing. Raises ParseError, RangeError.
    void checkFields(const Datum& fields) const;
    /// Writes the fields given, in declared order; true if any changed.
    bool setFields(Entity& entity, const Datum& fields) const;
    /// The value attributes as a record.
    Datum fields(const Entity& entity) const;

    /// All types by name, in order of registration.
    static const EntityType* find(std::string_view name);
    static const std::vector<const EntityType*>& all();

  private:
    std::string name_;
    Create creator_;
    std::vector<std::unique_ptr<const Attribute>> attributes_;
};

} // namespace State
