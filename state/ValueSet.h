// A set that is a value: copied, assigned and compared by value, walked in order of insertion. A copy shares
// the elements until one side changes, so that handing a set on costs one count. Up to `shortCount` members
// stand in one small array; a larger set is a Table (state/Table.h).
#pragma once

#include "state/Hash.h"
#include "state/Table.h"

#include <algorithm>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace State {

// T: a trivially copyable value type; `constant`: the collection's hash-seed constant.
template <class T, std::uint32_t constant>
class ValueSet {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

    struct KeyOf {
        const T& operator()(const T& element) const { return element; }
    };
    using Large = Table<T, KeyOf>;

    // Holds either `count` elements, which follow it, or a table.
    struct Rep {
        std::uint32_t holders;
        std::uint16_t count;
        std::uint16_t room;
        Large* large;
        T* elements() { return reinterpret_cast<T*>(this + 1); }
    };
    static_assert(alignof(T) <= alignof(Rep));

  public:
    using Element = T;
    static constexpr std::size_t shortCount = 16;

    ValueSet() noexcept = default;
    ValueSet(const ValueSet& other) noexcept
        : rep_(other.rep_) {
        if (rep_ != nullptr) {
            ++rep_->holders;
        }
    }
    ValueSet(ValueSet&& other) noexcept
        : rep_(std::exchange(other.rep_, nullptr)) {}
    ValueSet& operator=(ValueSet other) noexcept {
        std::swap(rep_, other.rep_);
        return *this;
    }
    ~ValueSet() { release(rep_); }

    bool empty() const { return rep_ == nullptr; }
    std::size_t size() const {
        return rep_ == nullptr ? 0 : rep_->large != nullptr ? rep_->large->size() : rep_->count;
    }
    bool has(const T& element) const {
        if (rep_ == nullptr) {
            return false;
        }
        if (rep_->large != nullptr) {
            return rep_->large->find(element) != nullptr;
        }
        return std::find(rep_->elements(), rep_->elements() + rep_->count, element) !=
               rep_->elements() + rep_->count;
    }

    // Inserts if absent; true if something changed.
    bool insert(const T& element) {
        if (has(element)) {
            return false;
        }
        const std::size_t count = size();
        if (rep_ != nullptr && rep_->large != nullptr) {
            own();
            rep_->large->findOrInsert(element, [&] { return element; });
        } else if (count == shortCount) {
            auto table = std::make_unique<Large>(processHashSeed() ^ constant);
            for (const T& each : elements()) {
                table->findOrInsert(each, [&] { return each; });
            }
            table->findOrInsert(element, [&] { return element; });
            Rep* grown = allocate(0);
            grown->large = table.release();
            release(std::exchange(rep_, grown));
        } else {
            const T copy = element; // may be one of a set that goes with the old array
            if (rep_ == nullptr || rep_->holders > 1 || rep_->room == count) {
                Rep* grown = allocate(count + 1);
                if (count > 0) {
                    std::copy_n(rep_->elements(), count, grown->elements());
                }
                release(std::exchange(rep_, grown));
            }
            ::new (rep_->elements() + count) T(copy);
            rep_->count = static_cast<std::uint16_t>(count + 1);
        }
        return true;
    }

    // Removes if present; true if something changed.
    bool erase(const T& element) {
        if (!has(element)) {
            return false;
        }
        if (size() == 1) {
            release(std::exchange(rep_, nullptr));
            return true;
        }
        own();
        if (rep_->large != nullptr) {
            rep_->large->erase(T(element));
        } else {
            static_cast<void>(std::remove(rep_->elements(), rep_->elements() + rep_->count, T(element)));
            --rep_->count;
        }
        return true;
    }

    void clear() { release(std::exchange(rep_, nullptr)); }

    // Calls visitor(element) -> go on, in order of insertion. The elements stay as they are meanwhile,
    // whatever the body does to this set.
    template <class Visit>
    void visit(Visit visitor) const {
        const ValueSet held = *this;
        if (held.rep_ == nullptr) {
            return;
        }
        if (held.rep_->large != nullptr) {
            for (const T& element : std::as_const(*held.rep_->large).walk()) {
                if (!visitor(element)) {
                    return;
                }
            }
        } else {
            for (std::size_t i = 0; i < held.rep_->count && visitor(held.rep_->elements()[i]); ++i) {
            }
        }
    }
    // The same for all of them, with visitor(element).
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

    // Same elements, in whatever order.
    bool operator==(const ValueSet& other) const {
        if (rep_ == other.rep_) {
            return true;
        }
        bool equal = size() == other.size();
        forEach([&](const T& element) { equal = equal && other.has(element); });
        return equal;
    }
    // By the elements in ascending order.
    std::strong_ordering operator<=>(const ValueSet& other) const {
        const auto mine = sorted();
        const auto theirs = other.sorted();
        return std::lexicographical_compare_three_way(mine.begin(), mine.end(), theirs.begin(), theirs.end());
    }
    // Independent of the order of the elements.
    std::uint32_t hash(std::uint32_t seed) const {
        std::uint32_t sum = 0;
        forEach([&](const T& element) { sum += element.hash(0); });
        return Hasher(seed).mix(sum).result();
    }

    // What this set holds, which all copies share.
    std::size_t memoryBytes() const {
        return rep_ == nullptr
                   ? 0
                   : sizeof(Rep) + rep_->room * sizeof(T) +
                         (rep_->large == nullptr ? 0 : sizeof(Large) + rep_->large->memoryBytes());
    }

  private:
    // Room for `count` elements, rounded up once there is more than one.
    static Rep* allocate(std::size_t count) {
        const std::size_t room =
            count <= 1 ? count : std::max<std::size_t>(count, (count + count / 2 + 1) & ~1U);
        auto* rep = static_cast<Rep*>(::operator new(sizeof(Rep) + room * sizeof(T)));
        *rep = Rep{1, 0, static_cast<std::uint16_t>(room), nullptr};
        return rep;
    }
    static void release(Rep* rep) {
        if (rep != nullptr && --rep->holders == 0) {
            destroy(rep);
        }
    }
    // Apart, so that the compiler does not take a count that it cannot follow for a use after the end.
    [[gnu::noinline]] static void destroy(Rep* rep) {
        delete rep->large;
        ::operator delete(rep);
    }
    // Makes this the only holder.
    void own() {
        if (rep_->holders == 1) {
            return;
        }
        Rep* mine = nullptr;
        if (rep_->large != nullptr) {
            auto copy = std::make_unique<Large>(rep_->large->clone());
            mine = allocate(0);
            mine->large = copy.release();
        } else {
            mine = allocate(rep_->count);
            std::copy_n(rep_->elements(), rep_->count, mine->elements());
            mine->count = rep_->count;
        }
        release(std::exchange(rep_, mine));
    }
    std::vector<T> sorted() const {
        auto list = elements();
        std::sort(list.begin(), list.end());
        return list;
    }

    Rep* rep_ = nullptr;
};

} // namespace State
