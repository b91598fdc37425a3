// A set that is a value: copied, assigned and compared by value, walked in order of insertion. A copy shares
// the elements until one side changes, so that handing a set on costs one count. A single member stands in
// the set itself, up to `shortCount` in one small array; a larger set is a Table (state/Table.h).
#pragma once

#include "state/Hash.h"
#include "state/Table.h"

#include <algorithm>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

namespace State {

/// T: a trivially copyable value type; `constant`: the collection's hash-seed constant.
template <class T, std::uint32_t constant>
class ValueSet {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

    struct KeyOf {
        const T& operator()(const T& element) const { return element; }
    };
    using Large = Table<T, KeyOf>;

    // Holds either `count` elements, which follow it, or a table. A set of one has none.
    struct RepHeader {
        std::uint32_t holders;
        std::uint16_t count;
        std::uint16_t room;
        Large* large;
    };
    using Rep = Trailing<RepHeader, T>;

  public:
    using Element = T;
    static constexpr std::size_t shortCount = 16;

    ValueSet() noexcept = default;
    ValueSet(const ValueSet& other) noexcept
        : content_(other.content_)
        , held_(other.held_) {
        if (held_ == Held::rep)
            ++content_.rep->holders;
    }
    ValueSet(ValueSet&& other) noexcept
        : content_(other.content_)
        , held_(std::exchange(other.held_, Held::nothing)) {}
    ValueSet& operator=(ValueSet other) noexcept {
        std::swap(content_, other.content_);
        std::swap(held_, other.held_);
        return *this;
    }
    ~ValueSet() { clear(); }

    bool empty() const { return held_ == Held::nothing; }
    std::size_t size() const {
        if (held_ == Held::rep)
            return content_.rep->large != nullptr ? content_.rep->large->size() : content_.rep->count;
        return held_ == Held::one ? 1 : 0;
    }
    bool has(const T& element) const {
        if (held_ == Held::rep && content_.rep->large != nullptr)
            return content_.rep->large->find(element) != nullptr;
        const auto members = shortMembers();
        return std::find(members.begin(), members.end(), element) != members.end();
    }

    /// Inserts if absent; true if something changed.
    bool insert(const T& element) {
        if (has(element))
            return false;
        const std::size_t count = size();
        if (count == 0) {
            std::construct_at(&content_.one, element);
            held_ = Held::one;
        } else if (held_ == Held::rep && content_.rep->large != nullptr) {
            own();
            content_.rep->large->findOrInsert(element, [&] { return element; });
        } else if (count == shortCount) {
            auto table = std::make_unique<Large>(processHashSeed() ^ constant);
            for (const T& each : elements())
                table->findOrInsert(each, [&] { return each; });
            table->findOrInsert(element, [&] { return element; });
            Rep* grown = allocate(0);
            grown->large = table.release();
            repIs(grown);
        } else {
            const T copy = element; // may be one of a set that goes with the old array
            if (held_ == Held::one || content_.rep->holders > 1 || content_.rep->room == count) {
                Rep* grown = allocate(count + 1);
                std::ranges::copy(shortMembers(), grown->items());
                repIs(grown);
            }
            ::new (content_.rep->items() + count) T(copy);
            content_.rep->count = static_cast<std::uint16_t>(count + 1);
        }
        return true;
    }

    /// Removes if present; true if something changed.
    bool erase(const T& element) {
        if (!has(element))
            return false;
        if (size() == 1) {
            clear();
            return true;
        }
        own();
        Rep& mine = *content_.rep;
        if (mine.large != nullptr) {
            mine.large->erase(T(element));
        } else {
            static_cast<void>(std::remove(mine.items(), mine.items() + mine.count, T(element)));
            --mine.count;
        }
        return true;
    }

    void clear() {
        if (std::exchange(held_, Held::nothing) == Held::rep)
            release(content_.rep);
    }

    /// Calls visitor(element) -> go on, in order of insertion. The elements stay as they are meanwhile,
    /// whatever the body does to this set.
    template <class Visit>
    void visit(Visit visitor) const {
        const ValueSet held = *this;
        if (held.held_ == Held::rep && held.content_.rep->large != nullptr) {
            for (const T& element : std::as_const(*held.content_.rep->large).walk())
                if (!visitor(element))
                    return;
            return;
        }
        for (const T& element : held.shortMembers())
            if (!visitor(element))
                return;
    }
    /// The same for all of them, with visitor(element).
    template <class Visit>
    void forEach(Visit visitor) const {
        visit([&](const T& element) {
            visitor(element);
            return true;
        });
    }
    std::vector<T> elements() const {
        std::vector<T> list;
        list.reserve(size());
        forEach([&](const T& element) { list.push_back(element); });
        return list;
    }

    /// Same elements, in whatever order.
    bool operator==(const ValueSet& other) const {
        if (held_ == Held::rep && other.held_ == Held::rep && content_.rep == other.content_.rep)
            return true;
        bool equal = size() == other.size();
        forEach([&](const T& element) { equal = equal && other.has(element); });
        return equal;
    }
    /// By the elements in ascending order.
    std::strong_ordering operator<=>(const ValueSet& other) const {
        const auto mine = sorted();
        const auto theirs = other.sorted();
        return std::lexicographical_compare_three_way(mine.begin(), mine.end(), theirs.begin(), theirs.end());
    }
    /// Independent of the order of the elements.
    std::uint32_t hash(std::uint32_t seed) const {
        std::uint32_t sum = 0;
        forEach([&](const T& element) { sum += element.hash(0); });
        return Hasher(seed).mix(sum).result();
    }

    /// What this set holds, which all copies share.
    std::size_t memoryBytes() const {
        if (held_ != Held::rep)
            return 0;
        const Rep& rep = *content_.rep;
        return Rep::bytes(rep.room) + (rep.large == nullptr ? 0 : sizeof(Large) + rep.large->memoryBytes());
    }

  private:
    // The members of a set that is no table.
    std::span<const T> shortMembers() const {
        switch (held_) {
        case Held::one:
            return {&content_.one, 1};
        case Held::rep:
            return {content_.rep->items(), content_.rep->count};
        default:
            return {};
        }
    }
    // Takes over the holder that a new Rep was born with.
    void repIs(Rep* rep) {
        clear();
        content_.rep = rep;
        held_ = Held::rep;
    }
    // Room for `count` elements, rounded up once there is more than one.
    static Rep* allocate(std::size_t count) {
        const std::size_t room =
            count <= 1 ? count : std::max<std::size_t>(count, (count + count / 2 + 1) & ~1U);
        return Rep::make(room, {1, 0, static_cast<std::uint16_t>(room), nullptr});
    }
    static void release(Rep* rep) {
        if (--rep->holders == 0)
            destroy(rep);
    }
    // Apart, so that the compiler does not take a count that it cannot follow for a use after the end.
    [[gnu::noinline]] static void destroy(Rep* rep) {
        delete rep->large;
        Rep::free(rep);
    }
    // Makes this the only holder of the Rep that it has.
    void own() {
        const Rep& shared = *content_.rep;
        if (shared.holders == 1)
            return;
        Rep* mine = nullptr;
        if (shared.large != nullptr) {
            auto copy = std::make_unique<Large>(shared.large->clone());
            mine = allocate(0);
            mine->large = copy.release();
        } else {
            mine = allocate(shared.count);
            std::ranges::copy(shortMembers(), mine->items());
            mine->count = shared.count;
        }
        repIs(mine);
    }
    std::vector<T> sorted() const {
        auto list = elements();
        std::sort(list.begin(), list.end());
        return list;
    }

    enum class Held : std::uint8_t { nothing, one, rep };
    union Content {
        Content()
            : rep(nullptr) {}
        T one;
        Rep* rep;
    };

    Content content_;
    Held held_ = Held::nothing;
};

} // namespace State
