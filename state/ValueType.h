// Run-time descriptions of value types, for schemas and other readers that know no C++ type: found by
// qualified name, made from ValueTraits (state/Value.h). `STATE_VALUE_TYPE( T );` in a .cpp puts T into the
// list.
#pragma once

#include "state/Value.h"

#include <string_view>
#include <utility>
#include <vector>

namespace State {

struct ValueType {
    std::string_view name;
    ValueKind kind;
    std::vector<std::pair<std::string_view, const ValueType*>> fields; // of a record, in declared order
    const ValueType* element = nullptr;                                // of a set
    std::vector<std::string_view> enumerators;                         // of an enumeration
};

/// Adds the type to the list, once.
void registerValueType(const ValueType& type);
const std::vector<const ValueType*>& valueTypes();
const ValueType* findValueType(std::string_view name);

/// The description of T; the same object for every caller.
template <class T>
const ValueType& valueType() {
    static const ValueType type = [] {
        ValueType made{ValueTraits<T>::name(), ValueTraits<T>::kind, {}, nullptr, {}};
        if constexpr (SetValue<T>)
            made.element = &valueType<typename T::Element>();
        else if constexpr (Described<T>)
            ValueTraits<T>::eachField([&](const auto& field) {
                using Member = std::remove_cvref_t<decltype(std::declval<T>().*(field.member))>;
                made.fields.emplace_back(field.name, &valueType<Member>());
            });
        else if constexpr (NamedEnum<T>)
            for (const auto& [number, text] : EnumNames<T>::enumerators)
                made.enumerators.push_back(text);
        return made;
    }();
    registerValueType(type);
    return type;
}

} // namespace State

#define STATE_VALUE_TYPE(T)                                                                                  \
    [[maybe_unused]] static const ::State::ValueType& STATE_VALUE_TYPE_NAME(__LINE__) =                      \
        ::State::valueType<T>()
#define STATE_VALUE_TYPE_NAME(line) STATE_VALUE_TYPE_JOIN(valueTypeAtLine, line)
#define STATE_VALUE_TYPE_JOIN(a, b) a##b
