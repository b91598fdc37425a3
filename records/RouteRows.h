// The rows of a multicast route table: table order, and the chains that find the rows a request can match.
//
// Table order is part of both route tables' contract (records/QuillFib.h, records/LumenFib.h): rows with a
// source first, then rows without one (the (*,G) rows), each in order of arrival; overwriting keeps a row's
// place. The first match of an (S,G) request is then the row that a forwarding plane would use.
//
// Rows live in a pool under 32-bit numbers. Beside them stand three sets of chains, doubly linked by number
// and in table order: rows with a source by group address and by source address, rows without a source by
// group address. candidates() walks the chains that concern a (source, group) and so visits every row that
// can match, in table order, at a cost that does not grow with the table. Prefix lengths take no part in the
// chains. The test holds them against a walk of the whole table.
#pragma once

#include "records/IpGenRouteKey.h"
#include "state/Table.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace Routing::Multicast::Fib {

/// The storage of a table's map attribute (state/HashedEntries.h says what that has). `Row`, movable, has:
/// Value; Row(key, Value); key(); value() by reference.
template <class Row>
class RouteRows {
  public:
    using Value = typename Row::Value;

    explicit RouteRows(std::uint32_t seed)
        : sourced_(seed, RowKey{&pool_})
        , starred_(seed, RowKey{&pool_})
        , sourcedByGroup_(seed, HeadAddress<groupSide>{&pool_})
        , sourcedBySource_(seed, HeadAddress<sourceSide>{&pool_})
        , starredByGroup_(seed, HeadAddress<groupSide>{&pool_}) {}
    RouteRows(const RouteRows&) = delete;
    RouteRows& operator=(const RouteRows&) = delete;

    std::size_t size() const { return sourced_.size() + starred_.size(); }

    /// The value under the key, or null; valid until the table changes.
    const Value* find(const IpGenRouteKey& key) const {
        const std::uint32_t number = numberOf(key);
        return number == none ? nullptr : &std::as_const(pool_[number].row).value();
    }

    /// The value under the key, and whether it was appended: makeValue() then, which must not use the table.
    template <class MakeValue>
    std::pair<Value*, bool> findOrInsert(const IpGenRouteKey& key, MakeValue makeValue) {
        if (const std::uint32_t number = numberOf(key); number != none)
            return {&pool_[number].row.value(), false};
        const std::uint32_t number = append(Row(key, makeValue()));
        return {&pool_[number].row.value(), true};
    }

    /// Removes the row under the key and hands its value to consume(Value&&); false when absent.
    template <class Consume>
    bool extract(const IpGenRouteKey& key, Consume consume) {
        const std::uint32_t number = numberOf(key);
        if (number == none)
            return false;
        foundLast_ = none;
        if (key.hasSource()) {
            unlink(sourcedByGroup_, key.group.ipv4(), number, groupSide);
            unlink(sourcedBySource_, key.source.ipv4(), number, sourceSide);
        } else {
            unlink(starredByGroup_, key.group.ipv4(), number, groupSide);
        }
        part(key).erase(key);
        Row row = pool_.giveBack(number);
        consume(std::move(row.value()));
        return true;
    }

    void clear() {
        visit(nullptr, [&](const IpGenRouteKey& key, const Value&) { return extract(key, [](Value&&) {}); });
    }

    /// Visits rows in table order with visit(key, value) until it answers false, beginning behind `after` if
    /// that is given and there. The body may change the table as that of a walk over a Table may; but a row
    /// that it removes is gone at once, so it copies what it needs of the current one.
    template <class Visit>
    void visit(const IpGenRouteKey* after, Visit visitor) const {
        const auto visitAll = [&](auto&& numbers) {
            for (const std::uint32_t number : numbers)
                if (!shown(number, visitor))
                    return false;
            return true;
        };
        const bool isInStarred = after != nullptr && starred_.find(*after) != nullptr;
        const auto starred = isInStarred ? starred_.walkAfter(*after) : starred_.walk();
        if (isInStarred || visitAll(after != nullptr ? sourced_.walkAfter(*after) : sourced_.walk()))
            visitAll(starred);
    }

    /// Visits, in table order, every row that a request for (source, group) can match, with visit(key, value)
    /// until it answers false; zero stands for any. The body must not change the table.
    template <class Visit>
    void candidates(L3::IpAddr source, L3::IpAddr group, Visit visit) const {
        if (group.isZero()) {
            chain(sourcedBySource_, source, sourceSide, visit) &&
                chain(starredByGroup_, group, groupSide, visit);
        } else if (source.isZero()) {
            chain(sourcedByGroup_, group, groupSide, visit) &&
                chain(starredByGroup_, group, groupSide, visit);
        } else {
            const std::uint32_t exact = numberOf(IpGenRouteKey::host(source, group));
            if (exact == none || shown(exact, visit))
                chain(starredByGroup_, group, groupSide, visit);
        }
    }

    std::size_t memoryBytes() const {
        return pool_.memoryBytes() + sourced_.memoryBytes() + starred_.memoryBytes() +
               sourcedByGroup_.memoryBytes() + sourcedBySource_.memoryBytes() + starredByGroup_.memoryBytes();
    }

  private:
    enum Side : std::uint8_t { groupSide, sourceSide };
    static constexpr std::uint32_t none = ~std::uint32_t{0};

    // A row's place in one chain. The head's `previous` is the chain's tail; the tail's `next` is none.
    struct Link {
        std::uint32_t previous;
        std::uint32_t next;
    };
    struct Slot {
        Row row;
        Link links[2]; // by Side
    };

    // Slots in blocks with stable addresses; free ones are chained through their number.
    class Pool {
      public:
        Pool() = default;
        Pool(const Pool&) = delete;
        Pool& operator=(const Pool&) = delete;
        ~Pool() {
            std::vector<bool> isFree(used_);
            for (std::uint32_t number = free_; number != none; number = cell(number).nextFree)
                isFree[number] = true;
            for (std::uint32_t number = 0; number < used_; ++number)
                if (!isFree[number])
                    std::destroy_at(&cell(number).slot);
        }

        Slot& operator[](std::uint32_t number) { return cell(number).slot; }
        const Slot& operator[](std::uint32_t number) const { return cell(number).slot; }

        std::uint32_t take(Row&& row) {
            if (free_ == none && used_ == blocks_.size() * blockSize)
                blocks_.push_back(std::make_unique_for_overwrite<Block>());
            const std::uint32_t number = free_ != none ? free_ : used_;
            Cell& place = cell(number);
            if (free_ != none)
                free_ = place.nextFree;
            else
                ++used_;
            std::construct_at(&place.slot, Slot{std::move(row), {}});
            return number;
        }

        Row giveBack(std::uint32_t number) {
            Cell& place = cell(number);
            Row row = std::move(place.slot.row);
            std::destroy_at(&place.slot);
            place.nextFree = std::exchange(free_, number);
            return row;
        }

        std::size_t memoryBytes() const {
            return blocks_.size() * sizeof(Block) + blocks_.capacity() * sizeof blocks_[0];
        }

      private:
        static constexpr std::uint32_t blockSize = 256;

        union Cell {
            Cell() {}
            ~Cell() {}
            Slot slot;
            std::uint32_t nextFree;
        };
        struct Block {
            Cell cells[blockSize];
        };

        Cell& cell(std::uint32_t number) const {
            return blocks_[number / blockSize]->cells[number % blockSize];
        }

        std::vector<std::unique_ptr<Block>> blocks_;
        std::uint32_t used_ = 0;
        std::uint32_t free_ = none;
    };

    struct RowKey {
        const Pool* pool;
        const IpGenRouteKey& operator()(std::uint32_t number) const { return (*pool)[number].row.key(); }
    };
    template <Side side>
    struct HeadAddress {
        const Pool* pool;
        L3::IpAddr operator()(std::uint32_t number) const {
            const IpGenRouteKey& key = (*pool)[number].row.key();
            return side == groupSide ? key.group.ipv4() : key.source.ipv4();
        }
    };
    using Part = State::Table<std::uint32_t, RowKey>;
    template <Side side>
    using Heads = State::Table<std::uint32_t, HeadAddress<side>>;

    Part& part(const IpGenRouteKey& key) { return key.hasSource() ? sourced_ : starred_; }
    const Part& part(const IpGenRouteKey& key) const { return key.hasSource() ? sourced_ : starred_; }

    // A changed route is looked up by its writer, by whoever checks it and by whoever resolves it, one after
    // the other: the row found last is tried first.
    std::uint32_t numberOf(const IpGenRouteKey& key) const {
        if (foundLast_ != none && pool_[foundLast_].row.key() == key)
            return foundLast_;
        const std::uint32_t* found = part(key).find(key);
        if (found == nullptr)
            return none;
        foundLast_ = *found;
        return *found;
    }

    // Shows the row to visit(key, value); its answer.
    template <class Visit>
    bool shown(std::uint32_t number, Visit& visit) const {
        const Row& row = pool_[number].row;
        return visit(row.key(), row.value());
    }

    // Appends a row whose key is not there yet; its number. Where memory runs out nothing of it stays.
    std::uint32_t append(Row row) {
        const IpGenRouteKey key = row.key();
        const std::uint32_t number = pool_.take(std::move(row));
        bool isListed = false;
        bool isLinked = false;
        try {
            part(key).findOrInsert(key, [&] { return number; });
            isListed = true;
            link(key.hasSource() ? sourcedByGroup_ : starredByGroup_, key.group.ipv4(), number, groupSide);
            isLinked = true;
            if (key.hasSource())
                link(sourcedBySource_, key.source.ipv4(), number, sourceSide);
        } catch (...) {
            if (isLinked)
                unlink(sourcedByGroup_, key.group.ipv4(), number, groupSide);
            if (isListed)
                part(key).erase(key);
            pool_.giveBack(number);
            throw;
        }
        foundLast_ = number;
        return number;
    }

    template <class HeadTable>
    void link(HeadTable& heads, L3::IpAddr address, std::uint32_t number, Side side) {
        Link& own = pool_[number].links[side];
        const auto [head, isNew] = heads.findOrInsert(address, [&] { return number; });
        own.next = none;
        if (isNew) {
            own.previous = number;
            return;
        }
        Link& headLink = pool_[*head].links[side];
        own.previous = headLink.previous;
        pool_[headLink.previous].links[side].next = number;
        headLink.previous = number;
    }

    template <class HeadTable>
    void unlink(HeadTable& heads, L3::IpAddr address, std::uint32_t number, Side side) {
        const Link link = pool_[number].links[side];
        std::uint32_t* head = heads.find(address);
        if (*head != number) {
            pool_[link.previous].links[side].next = link.next;
            pool_[link.next == none ? *head : link.next].links[side].previous = link.previous;
        } else if (link.next == none) {
            heads.erase(address);
        } else {
            pool_[link.next].links[side].previous = link.previous;
            *head = link.next;
        }
    }

    // False if the visitor ended it.
    template <class HeadTable, class Visit>
    bool chain(const HeadTable& heads, L3::IpAddr address, Side side, Visit& visit) const {
        const std::uint32_t* head = heads.find(address);
        for (std::uint32_t number = head == nullptr ? none : *head; number != none;) {
            const std::uint32_t next = pool_[number].links[side].next;
            if (!shown(number, visit))
                return false;
            number = next;
        }
        return true;
    }

    Pool pool_;
    Part sourced_;
    Part starred_;
    Heads<groupSide> sourcedByGroup_;
    Heads<sourceSide> sourcedBySource_;
    Heads<groupSide> starredByGroup_;
    mutable std::uint32_t foundLast_ = none;
};

} // namespace Routing::Multicast::Fib
