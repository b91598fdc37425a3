// The collection attribute of a multicast route table: route key to what `Row` holds, with the rules of
// State::MapAttribute (an equal value is silent, a null handle removes) over records/RouteRows.h.
#pragma once

#include "records/RouteRows.h"
#include "state/Collection.h"
#include "state/Publisher.h"

#include <utility>

namespace Routing::Multicast::Fib {

// `Row` has: Value; Row(key, Value); key(); value() by reference.
template <class Row>
class RouteAttribute {
  public:
    using Key = IpGenRouteKey;
    using Value = typename Row::Value;

    RouteAttribute(const State::Publisher& owner, State::AttributeId id, std::uint32_t constant)
        : owner_(owner)
        , rows_(State::processHashSeed() ^ constant)
        , id_(id) {}

    std::size_t size() const { return rows_.size(); }
    bool has(const Key& key) const { return rows_.find(key) != nullptr; }
    const Value* find(const Key& key) const {
        const Row* row = rows_.find(key);
        return row == nullptr ? nullptr : &row->value();
    }

    bool is(const Key& key, Value value) {
        if constexpr (State::isHandle<Value>) {
            if (!value)
                return erase(key, [](Value&&) {});
        }
        if (Row* row = rows_.find(key)) {
            if (row->value() == value)
                return false;
            row->value() = std::move(value);
        } else {
            rows_.insert(Row(key, std::move(value)));
        }
        owner_.publish(id_, &key);
        return true;
    }

    Value del(const Key& key) {
        Value old{};
        erase(key, [&](Value&& value) { old = std::move(value); });
        return old;
    }

    // Removes all: one announcement a row where someone listens.
    void delAll() {
        rows_.walk([&](const Row& row) {
            const Key key = row.key();
            del(key);
            return true;
        });
    }

    // visit(key, value) -> go on; in table order, behind `after` if that is given.
    template <class Visit>
    void visit(const Key* after, Visit visitor) const {
        rows_.walk([&](const Row& row) { return visitor(row.key(), row.value()); }, after);
    }

    // The same for every row that a request for (source, group) can match (RouteRows::candidates).
    template <class Visit>
    void candidates(L3::IpAddr source, L3::IpAddr group, Visit visitor) const {
        rows_.candidates(source, group, [&](const Row& row) { return visitor(row.key(), row.value()); });
    }

    std::size_t memoryBytes() const { return rows_.memoryBytes(); }

  private:
    template <class Consume>
    bool erase(const Key& given, Consume consume) {
        const Key key = given;
        if (!rows_.extract(key, [&](Row&& row) { consume(std::move(row.value())); }))
            return false;
        owner_.publish(id_, &key);
        return true;
    }

    const State::Publisher& owner_;
    RouteRows<Row> rows_;
    State::AttributeId id_;
};

} // namespace Routing::Multicast::Fib
