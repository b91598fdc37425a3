// A structured value's list of fields, `describe()`: the one place that says what a type consists of. Strings, hashes,
// plain data and the checks that no member was forgotten are derived from it.
//
//     struct MrouteSourceAndGroup {
//         L3::IpAddr sourceIp;
//         L3::IpAddr groupIp;
//         static constexpr auto describe() {
//             return State::describe("KestrelNat::MrouteSourceAndGroup",
//                                    State::field("sourceIp", &MrouteSourceAndGroup::sourceIp),
//                                    State::field("groupIp", &MrouteSourceAndGroup::groupIp));
//         }
//         std::uint32_t hash(std::uint32_t seed) const { return State::hashFields(*this, seed); }
//         auto operator<=>(const MrouteSourceAndGroup&) const = default;
//     };
//
// Read next: Value.h, what is derived.
#pragma once

#include "state/Hash.h"

#include <concepts>
#include <cstddef>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace State {

template <class Owner, class Member>
struct Field {
    std::string_view name;
    Member Owner::*member;
};

template <class Owner, class Member>
constexpr Field<Owner, Member> field(std::string_view name, Member Owner::*member) {
    return {name, member};
}

template <class... Fields>
struct Description {
    std::string_view typeName;
    std::tuple<Fields...> fields;
};

template <class... Fields>
constexpr Description<Fields...> describe(std::string_view typeName, Fields... fields) {
    return {typeName, {fields...}};
}

/// Stands for a value of any type, where only the count of the members matters.
struct AnyMember {
    template <class T>
    operator T() const;
};

template <class T, std::size_t... i>
constexpr bool takesMembers(std::index_sequence<i...>) {
    return requires {
        T{(static_cast<void>(i), AnyMember{})...};
    };
}

/// How many members an aggregate has: the most initialisers that it takes.
template <class T, std::size_t count = 16>
constexpr std::size_t memberCountOf() {
    if constexpr (count == 0 || takesMembers<T>(std::make_index_sequence<count>()))
        return count;
    else
        return memberCountOf<T, count - 1>();
}
template <class T>
constexpr std::size_t memberCount = memberCountOf<T>();

/// A value whose members are all given, in their order: with a new member it doesn't compile until that has a value.
template <class T, class... Members>
constexpr T whole(const Members&... members) {
    static_assert(sizeof...(members) == memberCount<T>, "every member of the value is given");
    return T{members...};
}

/// A structured value: an aggregate with a field list.
template <class T>
concept Described = requires {
    T::describe().typeName;
};

template <class T>
void mixInto(Hasher& hasher, const T& value) {
    if constexpr (requires { hasher.mix(value.hashBits()); })
        hasher.mix(value.hashBits()); // a scalar's own hash is its bits
    else if constexpr (requires { value.hash(0U); })
        hasher.mix(value.hash(0U)); // a nested value goes in as its hash under seed 0
    else if constexpr (std::is_enum_v<T>)
        hasher.mix(static_cast<std::underlying_type_t<T>>(value));
    else if constexpr (std::convertible_to<const T&, std::string_view>)
        hasher.mix(std::string_view(value));
    else
        hasher.mix(value);
}

/// Hash of a structured value: its fields mixed in declared order, under `seed`.
template <Described T>
constexpr std::uint32_t hashFields(const T& value, std::uint32_t seed) {
    Hasher hasher(seed);
    std::apply([&](const auto&... fields) { (mixInto(hasher, value.*(fields.member)), ...); },
               T::describe().fields);
    return hasher.result();
}

} // namespace State
