// The storage of a map attribute (state/Collection.h), unless it is given another: its entries in one hashed
// table, in order of insertion. It announces nothing; the attribute, its owner, does.
//
// Another storage (records/RouteRows.h is one) has the same constructor, size, find, findOrInsert, extract,
// clear, visit and memoryBytes, and keeps a removed key readable until `extract` has returned.
#pragma once

#include "state/Hash.h"
#include "state/Table.h"

#include <cstddef>
#include <cstdint>
#include <utility>

namespace State {

template <class K, class V>
class HashedEntries {
  public:
    using Entry = MapEntry<K, V>;

    explicit HashedEntries(std::uint32_t seed)
        : table_(seed) {}

    std::size_t size() const { return table_.size(); }
    std::size_t memoryBytes() const { return table_.memoryBytes(); }

    /// The value under the key, or null. `Given` is a K or a HashedKey<K>, here and below.
    template <class Given>
    const V* find(const Given& key) const {
        const Entry* entry = table_.find(key);
        return entry == nullptr ? nullptr : &entry->value;
    }
    /// The value under the key, and whether it was inserted: makeValue() then, which must not use the storage.
    template <class Given, class MakeValue>
    std::pair<V*, bool> findOrInsert(const Given& key, MakeValue makeValue) {
        const auto makeEntry = [&] { return Entry{unhashed(key), makeValue()}; };
        const auto [entry, inserted] = table_.findOrInsert(key, makeEntry);
        return {&entry->value, inserted};
    }
    /// Removes the entry and hands its value to consume(V&&); false when absent.
    template <class Given, class Consume>
    bool extract(const Given& key, Consume consume) {
        return table_.extract(key, [&](Entry&& entry) { consume(std::move(entry.value)); });
    }
    void clear() { table_.clear(); }

    /// visit(key, value) -> go on; in order, behind `after` if that is given and there.
    template <class Visit>
    void visit(const K* after, Visit visitor) const {
        for (const Entry& entry : after == nullptr ? table_.walk() : table_.walkAfter(*after))
            if (!visitor(entry.key, entry.value))
                return;
    }

    /// What this storage alone has: its table.
    const auto& table() const { return table_; }

  private:
    struct KeyOf {
        const K& operator()(const Entry& entry) const { return entry.key; }
    };

    Table<Entry, KeyOf> table_;
};

} // namespace State
