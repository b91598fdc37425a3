// Makers of attribute descriptions (state/Entity.h) from members of an entity class. An entity's .cpp lists
// them:
//
//     const State::EntityType& VrfEnabledStatus::type() {
//         static const State::EntityType made(
//             "Routing::Multicast::Fib::VrfEnabledStatus", &State::createEntity<VrfEnabledStatus>,
//             State::attributes(State::mapAttribute<VrfEnabledStatus>(
//                 "vrfEnabled", vrfEnabledAttribute, [](auto& entity) -> auto& { return
//                 entity.vrfEnabledCollection(); })));
//         return made;
//     }
//     STATE_ENTITY_TYPE(VrfEnabledStatus);
//
// A collection that is no MapAttribute serves as one if it has the same operations (is, del, find, has, size,
// visit) and its Key and Value.
#pragma once

#include "state/Entity.h"
#include "state/ValueType.h"

#include <memory>
#include <utility>
#include <vector>

namespace State {

template <class... Attributes>
std::vector<std::unique_ptr<const Attribute>> attributes(Attributes... made) {
    std::vector<std::unique_ptr<const Attribute>> list;
    (list.push_back(std::move(made)), ...);
    return list;
}

using AttributePointer = std::unique_ptr<const Attribute>;

// ---- one value ----------------------------------------------------------------------------------------------

template <class E, auto get, auto set_>
class ValueAttributeOf final : public Attribute {
    using V = std::remove_cvref_t<decltype((std::declval<const E&>().*get)())>;

  public:
    ValueAttributeOf(std::string_view name, AttributeId id)
        : Attribute(name, id, AttributeKind::value) {}
    const ValueType* valueType() const override { return &State::valueType<V>(); }
    Datum value(const Entity& entity) const override {
        return toDatum((static_cast<const E&>(entity).*get)());
    }
    void check(const Datum* key, const Datum* value) const override { parse(key, value); }
    bool set(Entity& entity, const Datum* key, const Datum* value) const override {
        V wanted = parse(key, value);
        auto& typed = static_cast<E&>(entity);
        if ((typed.*get)() == wanted)
            return false;
        (typed.*set_)(std::move(wanted));
        return true;
    }

  private:
    V parse(const Datum* key, const Datum* value) const {
        if (key != nullptr)
            unsupported("written by key");
        if (value == nullptr)
            unsupported("written without a value");
        return fromDatum<V>(*value);
    }
};

/// `get` reads the value, `set` writes it (equal values announce nothing).
template <class E, auto get, auto set>
AttributePointer valueAttribute(std::string_view name, AttributeId id) {
    return std::make_unique<ValueAttributeOf<E, get, set>>(name, id);
}

// ---- collections --------------------------------------------------------------------------------------------

/// What all three kinds of collection share. `Access`, a captureless lambda, yields the collection of an E,
/// const for a const one.
template <class E, class Access>
class CollectionAttributeOf : public Attribute {
  protected:
    using Collection = std::remove_cvref_t<decltype(Access{}(std::declval<E&>()))>;
    using K = typename Collection::Key;

    using Attribute::Attribute;
    static const Collection& of(const Entity& entity) { return Access{}(static_cast<const E&>(entity)); }
    static Collection& of(Entity& entity) { return Access{}(static_cast<E&>(entity)); }
    K keyOf(const Datum* key) const {
        if (key == nullptr)
            unsupported("written without a key");
        return fromDatum<K>(*key);
    }
    /// Calls visit(key, ...) for each member behind `after`, if that is given, until it answers false.
    template <class Visit>
    void eachMember(const Entity& entity, const Datum* after, Visit visit) const {
        if (after == nullptr) {
            of(entity).visit(nullptr, visit);
        } else {
            const K key = keyOf(after);
            of(entity).visit(&key, visit);
        }
    }

  public:
    const ValueType* keyType() const override { return &State::valueType<K>(); }
    std::size_t size(const Entity& entity) const override { return of(entity).size(); }
    bool del(Entity& entity, const Datum& key) const override {
        const K typed = keyOf(&key);
        const bool present = of(std::as_const(entity)).has(typed);
        of(entity).del(typed);
        return present;
    }
};

template <class E, class Access>
class SetAttributeOf final : public CollectionAttributeOf<E, Access> {
    using Base = CollectionAttributeOf<E, Access>;

  public:
    SetAttributeOf(std::string_view name, AttributeId id)
        : Base(name, id, AttributeKind::set) {}
    std::optional<Datum> find(const Entity& entity, const Datum& key) const override {
        return Base::of(entity).has(Base::keyOf(&key)) ? std::optional<Datum>(Datum()) : std::nullopt;
    }
    void walk(const Entity& entity, const Datum* after, const MemberVisitor& visit) const override {
        Base::eachMember(entity, after, [&](const auto& key) { return visit(toDatum(key), Datum()); });
    }
    void check(const Datum* key, const Datum* value) const override {
        Base::keyOf(key);
        if (value != nullptr && !value->isNull())
            Base::unsupported("written with a value: it is a set");
    }
    bool set(Entity& entity, const Datum* key, const Datum* value) const override {
        check(key, value);
        return Base::of(entity).is(Base::keyOf(key));
    }
};

template <class E, class Access>
class MapAttributeOf final : public CollectionAttributeOf<E, Access> {
    using Base = CollectionAttributeOf<E, Access>;
    using V = typename Base::Collection::Value;

  public:
    MapAttributeOf(std::string_view name, AttributeId id)
        : Base(name, id, AttributeKind::map) {}
    const ValueType* valueType() const override { return &State::valueType<V>(); }
    std::optional<Datum> find(const Entity& entity, const Datum& key) const override {
        const auto* value = Base::of(entity).find(Base::keyOf(&key));
        return value == nullptr ? std::nullopt : std::optional<Datum>(toDatum(*value));
    }
    void walk(const Entity& entity, const Datum* after, const MemberVisitor& visit) const override {
        Base::eachMember(entity, after, [&](const auto& key, const V& value) {
            return visit(toDatum(key), toDatum(value));
        });
    }
    void check(const Datum* key, const Datum* value) const override {
        Base::keyOf(key);
        valueOf(value);
    }
    bool set(Entity& entity, const Datum* key, const Datum* value) const override {
        return Base::of(entity).is(Base::keyOf(key), valueOf(value));
    }

  private:
    V valueOf(const Datum* value) const {
        if (value == nullptr)
            Base::unsupported("written without a value");
        return fromDatum<V>(*value);
    }
};

/// Members are entities, made from their key by `make` (const E&, key) -> Handle<M>, which does not insert them.
template <class E, class Access, auto make>
class MembersAttributeOf final : public CollectionAttributeOf<E, Access> {
    using Base = CollectionAttributeOf<E, Access>;
    using MemberHandle = typename Base::Collection::Value;

  public:
    MembersAttributeOf(std::string_view name, AttributeId id)
        : Base(name, id, AttributeKind::members) {}
    const EntityType* memberType() const override { return &type(); }
    Handle<Entity> member(const Entity& entity, const Datum& key) const override {
        const auto* found = Base::of(entity).find(Base::keyOf(&key));
        return found == nullptr ? Handle<Entity>() : Handle<Entity>(*found);
    }
    Handle<Entity> memberMade(const Entity& owner, const Datum& key) const override {
        return madeFrom(owner, Base::keyOf(&key));
    }
    void memberIs(Entity& owner, const Datum& key, const Handle<Entity>& member) const override {
        MemberHandle typed = handleCast<M>(member);
        if (!typed)
            Base::unsupported("given a member of another type");
        Base::of(owner).is(Base::keyOf(&key), std::move(typed));
    }
    std::optional<Datum> find(const Entity& entity, const Datum& key) const override {
        const Handle<Entity> found = member(entity, key);
        return found ? std::optional<Datum>(type().fields(*found)) : std::nullopt;
    }
    void walk(const Entity& entity, const Datum* after, const MemberVisitor& visit) const override {
        Base::eachMember(entity, after, [&](const auto& key, const MemberHandle& value) {
            return visit(toDatum(key), type().fields(*value));
        });
    }
    void check(const Datum* key, const Datum* value) const override {
        Base::keyOf(key);
        type().checkFields(value == nullptr ? Datum() : *value);
    }
    bool set(Entity& entity, const Datum* key, const Datum* value) const override {
        const auto typedKey = Base::keyOf(key);
        const Datum fields = value == nullptr ? Datum() : *value;
        if (const auto* found = Base::of(std::as_const(entity)).find(typedKey)) {
            const MemberHandle present = *found;
            if (!type().setFields(*present, fields))
                return false;
            advance(*present);
            return true;
        }
        MemberHandle made = madeFrom(entity, typedKey);
        type().setFields(*made, fields);
        Base::of(entity).is(typedKey, std::move(made));
        return true;
    }

  private:
    using M = std::remove_reference_t<decltype(*std::declval<MemberHandle>())>;

    static const EntityType& type() { return M::type(); }
    static MemberHandle madeFrom(const Entity& owner, const typename Base::K& key) {
        return make(static_cast<const E&>(owner), key);
    }
    // Tells the member's own readers last that it changed, where it carries a version for them.
    static void advance(M& member) {
        if constexpr (requires { member.versionAdvance(); })
            member.versionAdvance();
    }
};

/// `access` yields the collection: [](auto& entity) -> auto& { return entity.vrfStatusCollection(); }
template <class E, class Access>
AttributePointer setAttribute(std::string_view name, AttributeId id, Access) {
    return std::make_unique<SetAttributeOf<E, Access>>(name, id);
}
template <class E, class Access>
AttributePointer mapAttribute(std::string_view name, AttributeId id, Access) {
    return std::make_unique<MapAttributeOf<E, Access>>(name, id);
}
/// `make` makes a member from its key: Handle<M> make(const E& owner, const K& key).
template <class E, auto make, class Access>
AttributePointer membersAttribute(std::string_view name, AttributeId id, Access) {
    return std::make_unique<MembersAttributeOf<E, Access, make>>(name, id);
}

/// Creator of an entity type whose constructor takes a name, or nothing.
template <class E>
Handle<Entity> createEntity(std::string_view name) {
    if constexpr (std::constructible_from<E, std::string_view>)
        return makeHandle<E>(name);
    else
        return makeHandle<E>();
}

} // namespace State

// Puts the entity type into the list of all types when its library is loaded.
#define STATE_ENTITY_TYPE(E)                                                                                 \
    [[maybe_unused]] static const ::State::EntityType& STATE_ENTITY_TYPE_NAME(__LINE__) = E::type()
#define STATE_ENTITY_TYPE_NAME(line) STATE_VALUE_TYPE_JOIN(entityTypeAtLine, line)
