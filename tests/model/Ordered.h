// Plain containers that keep insertion order, for the naive model and for what is compared with it.
// Nothing here is quick or clever: a vector and a search from its front. That is the point, since the
// product's hashed tables are held against it. Overwriting keeps a member's place; removing a member and
// adding it again puts it last. Read PlainTypes.h next.
#pragma once

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Model {

/// A map in insertion order. Equality includes the order.
template <class Key, class Value>
class OrderedMap {
  public:
    using Member = std::pair<Key, Value>;

    bool operator==(const OrderedMap&) const = default;

    const Value* find(const Key& key) const {
        const auto at = std::find_if(members_.begin(), members_.end(),
                                     [&key](const Member& member) { return member.first == key; });
        return at == members_.end() ? nullptr : &at->second;
    }
    Value* find(const Key& key) { return const_cast<Value*>(std::as_const(*this).find(key)); }

    bool has(const Key& key) const { return find(key) != nullptr; }

    /// The member's value. Throws std::out_of_range where there is no such member.
    const Value& at(const Key& key) const {
        const Value* value = find(key);
        if (value == nullptr)
            throw std::out_of_range("OrderedMap::at: no such member");
        return *value;
    }
    Value& at(const Key& key) { return const_cast<Value&>(std::as_const(*this).at(key)); }

    /// A copy of the member's value, or a default one.
    Value get(const Key& key) const {
        const Value* value = find(key);
        return value == nullptr ? Value() : *value;
    }

    /// Inserts or overwrites. Returns whether anything changed.
    bool put(const Key& key, const Value& value) {
        if (Value* present = find(key)) {
            if (*present == value)
                return false;
            *present = value;
            return true;
        }
        members_.emplace_back(key, value);
        return true;
    }

    /// Removes the member if present. Returns whether it was.
    bool erase(const Key& key) {
        return std::erase_if(members_, [&key](const Member& member) { return member.first == key; }) != 0;
    }

    void clear() { members_.clear(); }
    bool empty() const { return members_.empty(); }
    std::size_t size() const { return members_.size(); }
    auto begin() const { return members_.begin(); }
    auto end() const { return members_.end(); }

  private:
    std::vector<Member> members_;
};

/// A set in insertion order. Equality includes the order.
template <class Key>
class OrderedSet {
  public:
    bool operator==(const OrderedSet&) const = default;

    bool has(const Key& key) const {
        return std::find(members_.begin(), members_.end(), key) != members_.end();
    }

    /// Inserts if absent. Returns whether the set changed.
    bool put(const Key& key) {
        if (has(key))
            return false;
        members_.push_back(key);
        return true;
    }

    /// Removes if present. Returns whether the set changed.
    bool erase(const Key& key) { return std::erase(members_, key) != 0; }

    void clear() { members_.clear(); }
    bool empty() const { return members_.empty(); }
    std::size_t size() const { return members_.size(); }
    auto begin() const { return members_.begin(); }
    auto end() const { return members_.end(); }

  private:
    std::vector<Key> members_;
};

} // namespace Model
