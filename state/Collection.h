// The collection attributes of entities and state machines: maps and sets that announce their changes.
//
// MapAttribute and SetAttribute hold the rules, once: an equal value changes nothing and is silent, a null
// handle removes, a removal hands back the old value, DelAll is quiet where nobody listens. The macros
// STATE_MAP and STATE_SET give a class the named operations (`vrfNameToIdIs`, `vrfNameToIdDel`, ...) and only
// forward. Iteration is in order of insertion (state/Table.h says what a walk's body may do).
#pragma once

#include "state/Hash.h"
#include "state/HashedEntries.h"
#include "state/Publisher.h"
#include "state/Table.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

namespace State {

/// Hash-seed constant of a collection for which none is given: FNV-1a of its qualified name,
/// "Namespace::Type::attribute" (Fowler, Noll, Vo; 32 bit).
constexpr std::uint32_t seedConstant(std::string_view qualifiedName) {
    std::uint32_t hash = 2166136261U;
    for (const char character : qualifiedName)
        hash = (hash ^ static_cast<unsigned char>(character)) * 16777619U;
    return hash;
}

template <class V>
inline constexpr bool isHandle = false;
template <class T>
inline constexpr bool isHandle<Handle<T>> = true;

/// What MapAttribute::edit does with the value once it was edited.
enum class Edited { unchanged, changed, remove };

/// `Storage` holds the entries (state/HashedEntries.h says what it has).
template <class K, class V, class Storage = HashedEntries<K, V>>
class MapAttribute {
  public:
    using Key = K;
    using Value = V;

    /// The collection numbered `id` of `owner`, which announces its changes.
    MapAttribute(const Publisher& owner, AttributeId id, std::uint32_t constant)
        : owner_(owner)
        , storage_(processHashSeed() ^ constant)
        , id_(id) {}

    std::size_t size() const { return storage_.size(); }
    bool has(const K& key) const { return storage_.find(key) != nullptr; }
    /// The value in place, null when absent; valid until the collection changes.
    const V* find(const K& key) const { return storage_.find(key); }
    /// The value, or the default (zero, null, empty) when absent.
    V get(const K& key) const {
        const V* value = find(key);
        return value == nullptr ? V{} : *value;
    }

    /// Inserts or replaces; true if something changed. A null handle removes.
    bool is(const K& key, V value) {
        if constexpr (isHandle<V>) {
            if (!value)
                return erase(key, release);
        }
        return put(key, std::move(value));
    }

    /// Removes and hands back the old value; the default when absent.
    V del(const K& key) {
        V old{};
        erase(key, [&](V&& value) { old = std::move(value); });
        return old;
    }

    /// For who has several maps of one seed (those of one attribute): look-ups that hash the key once.
    HashedKey<K> hashed(const K& key) const { return storage_.table().hashed(key); }
    const V* find(const HashedKey<K>& key) const { return storage_.find(key); }
    void prefetch(const HashedKey<K>& key) const { storage_.table().prefetch(key); }
    bool is(const HashedKey<K>& key, V value) requires(!isHandle<V>) { return put(key, std::move(value)); }
    /// Removes; true if it was there.
    bool drop(const HashedKey<K>& key) { return erase(key, release); }

    /// Removes all: member by member with an announcement each where someone listens, else silently.
    void delAll() {
        if (!owner_.hasSubscribers()) {
            storage_.clear();
            ++changes_;
            return;
        }
        storage_.visit(nullptr, [&](const K& key, const V&) {
            del(key);
            return true;
        });
    }

    /// Changes a value in place, an absent one from its default: `change(V&)` says what became of it.
    template <class Change>
    void edit(const K& key, Change change) {
        const auto [value, inserted] = storage_.findOrInsert(key, [] { return V{}; });
        ++changes_;
        Edited edited = Edited::remove;
        try {
            edited = change(*value);
        } catch (...) {
            if (inserted)
                storage_.extract(key, release);
            throw;
        }
        if (edited == Edited::remove) {
            storage_.extract(key, release);
            if (inserted)
                return;
        } else if (edited == Edited::unchanged && !inserted) {
            return;
        }
        owner_.publish(id_, &key);
    }

    /// Visits {key, value} in order of insertion.
    auto walk() const { return storage_.table().walk(); }
    /// visit(key, value) -> go on; in order, behind `after` if that is given and there.
    template <class Visit>
    void visit(const K* after, Visit visitor) const {
        storage_.visit(after, visitor);
    }

    /// For look-ups that the storage alone has.
    const Storage& storage() const { return storage_; }
    std::size_t memoryBytes() const { return storage_.memoryBytes(); }
    /// Another number after each change, also after a removal that found nothing; for who keeps what it
    /// computed from the whole collection.
    std::uint32_t changes() const { return changes_; }

  private:
    // The value goes at once, also where a walk keeps the entry that had it.
    static void release(V&& value) { static_cast<void>(V(std::move(value))); }

    // `Given` is a K or a HashedKey<K>.
    template <class Given>
    bool put(const Given& key, V&& value) {
        const auto [present, inserted] =
            storage_.findOrInsert(key, [&]() -> V&& { return std::move(value); });
        if (!inserted) {
            if (*present == value)
                return false;
            *present = std::move(value);
        }
        ++changes_;
        owner_.publish(id_, &unhashed(key));
        return true;
    }
    template <class Given, class Consume>
    bool erase(const Given& key, Consume consume) {
        ++changes_;
        if (!owner_.hasSubscribers())
            return storage_.extract(key, consume);
        const K copy = unhashed(key); // the key may be the member's own
        if (!storage_.extract(key, consume))
            return false;
        owner_.publish(id_, &copy);
        return true;
    }

    const Publisher& owner_;
    Storage storage_;
    AttributeId id_;
    std::uint32_t changes_ = 0;
};

template <class K>
class SetAttribute {
  public:
    using Key = K;
    struct KeyOf {
        const K& operator()(const K& key) const { return key; }
    };

    SetAttribute(const Publisher& owner, AttributeId id, std::uint32_t constant)
        : owner_(owner)
        , table_(processHashSeed() ^ constant)
        , id_(id) {}

    std::size_t size() const { return table_.size(); }
    bool has(const K& key) const { return table_.find(key) != nullptr; }

    /// Inserts if absent; true if something changed.
    bool is(const K& key) {
        if (!table_.findOrInsert(key, [&] { return key; }).second)
            return false;
        owner_.publish(id_, &key);
        return true;
    }

    /// Removes; true if it was there.
    bool del(const K& given) {
        const K key = given;
        if (!table_.erase(key))
            return false;
        owner_.publish(id_, &key);
        return true;
    }

    /// As MapAttribute::delAll.
    void delAll() {
        if (!owner_.hasSubscribers()) {
            table_.clear();
            return;
        }
        for (const K& key : table_.walk())
            del(key);
    }

    auto walk() const { return table_.walk(); }
    /// As MapAttribute::visit, with visit(key).
    template <class Visit>
    void visit(const K* after, Visit visitor) const {
        for (const K& key : after == nullptr ? table_.walk() : table_.walkAfter(*after))
            if (!visitor(key))
                return;
    }

    std::size_t memoryBytes() const { return table_.memoryBytes(); }

  private:
    const Publisher& owner_;
    Table<K, KeyOf> table_;
    AttributeId id_;
};

} // namespace State

// STATE_MAP( id, name, K, V, constant ): gives the class (a Publisher) the map attribute number `id`, called
// `name`, with keys K, values V and hash-seed constant `constant`:
//     nameIs(key, value)   nameDel(key) -> old value   nameDelAll()   nameHas(key)
//     name(key) -> value or default   name() -> walk over {key, value}   nameCollection() -> the attribute
//     itself
// and the constant `nameAttribute`. Leaves the class's access at public.
#define STATE_MAP(id, name, K, V, constant)                                                                  \
  public:                                                                                                    \
    static constexpr ::State::AttributeId name##Attribute = id;                                              \
    void name##Is(const K& key, V value) {                                                                   \
        name##_.is(key, std::move(value));                                                                   \
    }                                                                                                        \
    V name##Del(const K& key) {                                                                              \
        return name##_.del(key);                                                                             \
    }                                                                                                        \
    void name##DelAll() {                                                                                    \
        name##_.delAll();                                                                                    \
    }                                                                                                        \
    bool name##Has(const K& key) const {                                                                     \
        return name##_.has(key);                                                                             \
    }                                                                                                        \
    V name(const K& key) const {                                                                             \
        return name##_.get(key);                                                                             \
    }                                                                                                        \
    auto name() const {                                                                                      \
        return name##_.walk();                                                                               \
    }                                                                                                        \
    const ::State::MapAttribute<K, V>& name##Collection() const {                                            \
        return name##_;                                                                                      \
    }                                                                                                        \
    ::State::MapAttribute<K, V>& name##Collection() {                                                        \
        return name##_;                                                                                      \
    }                                                                                                        \
                                                                                                             \
  private:                                                                                                   \
    ::State::MapAttribute<K, V> name##_{*this, id, constant};                                                \
                                                                                                             \
  public:

// STATE_SET( id, name, K, constant ): the same for a set of K: nameIs(key), nameDel(key) -> was there,
// nameDelAll(), nameHas(key), name() -> walk over keys, nameCollection(), nameAttribute.
#define STATE_SET(id, name, K, constant)                                                                     \
  public:                                                                                                    \
    static constexpr ::State::AttributeId name##Attribute = id;                                              \
    void name##Is(const K& key) {                                                                            \
        name##_.is(key);                                                                                     \
    }                                                                                                        \
    bool name##Del(const K& key) {                                                                           \
        return name##_.del(key);                                                                             \
    }                                                                                                        \
    void name##DelAll() {                                                                                    \
        name##_.delAll();                                                                                    \
    }                                                                                                        \
    bool name##Has(const K& key) const {                                                                     \
        return name##_.has(key);                                                                             \
    }                                                                                                        \
    auto name() const {                                                                                      \
        return name##_.walk();                                                                               \
    }                                                                                                        \
    const ::State::SetAttribute<K>& name##Collection() const {                                               \
        return name##_;                                                                                      \
    }                                                                                                        \
    ::State::SetAttribute<K>& name##Collection() {                                                           \
        return name##_;                                                                                      \
    }                                                                                                        \
                                                                                                             \
  private:                                                                                                   \
    ::State::SetAttribute<K> name##_{*this, id, constant};                                                   \
                                                                                                             \
  public:
