// A block of memory that begins with a header and goes on with an array: one allocation for what is always together.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>

namespace State {

/// A Header with an array of T behind it. Made by make() alone, ended by free(). How many items there are is the
/// header's business; they are trivial, and made by whoever fills them.
template <class Header, class T>
struct alignas(Header) alignas(T) Trailing : Header {
    static_assert(std::is_trivially_destructible_v<Header> && std::is_trivially_destructible_v<T>);

    T* items() { return reinterpret_cast<T*>(this + 1); }
    const T* items() const { return reinterpret_cast<const T*>(this + 1); }

    // NOLINTNEXTLINE(bugprone-sizeof-expression): items may be pointers
    static constexpr std::size_t bytes(std::size_t count) { return sizeof(Trailing) + count * sizeof(T); }
    /// Room for `count` items. std::bad_alloc.
    static Trailing* make(std::size_t count, const Header& header) {
        return ::new (::operator new(bytes(count))) Trailing{header};
    }
    /// The same; null where memory runs out.
    static Trailing* makeOrNull(std::size_t count, const Header& header) {
        void* const block = ::operator new(bytes(count), std::nothrow);
        return block == nullptr ? nullptr : ::new (block) Trailing{header};
    }
    /// Null is accepted.
    static void free(Trailing* block) { ::operator delete(block); }
};

} // namespace State
