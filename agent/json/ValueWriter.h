// Typed values told to a writer, field by field from the list that their type has (state/Value.h): the same as their
// plain data, without building it.
#pragma once

#include "state/Value.h"
#include "text/Writer.h"

#include <algorithm>
#include <type_traits>

namespace Agent::Json {

template <class T>
void writeValue(Text::Writer& writer, const T& value) {
    if constexpr (State::Described<T>) {
        writer.beginRecord();
        State::ValueTraits<T>::eachField([&](const auto& field) {
            writer.field(field.name);
            writeValue(writer, value.*(field.member));
        });
        writer.end();
    } else if constexpr (State::SetValue<T>) {
        writer.beginList();
        for (const auto& element : State::elementsOf(value))
            writeValue(writer, typename T::Element(element));
        writer.end();
    } else if constexpr (State::NamedEnum<T>) {
        const auto& names = State::EnumNames<T>::enumerators;
        const auto named = std::ranges::find(names, value, [](const auto& name) { return name.first; });
        if (named != std::end(names))
            writer.value(named->second);
        else
            writer.value(static_cast<std::underlying_type_t<T>>(value));
    } else if constexpr (State::TextScalar<T>) {
        writer.value(value.stringValue());
    } else if constexpr (State::NumberScalar<T>) {
        writer.value(value.value());
    } else {
        writer.value(value);
    }
}

} // namespace Agent::Json
