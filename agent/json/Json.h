// JSON and plain data (state/Datum.h): the one reader of JSON in the agent, and plain data and typed values told to a
// writer.
//
// Objects become records in the order of their members, a repeated name twice; numbers that are not whole, or fit
// no 64 bits, stand as such, and no type accepts them. What is read is read completely: a text with a fault
// anywhere yields nothing. Control lines, words of the grammar and the kernel configuration come through here.
#pragma once

#include "state/Value.h"
#include "text/Writer.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

namespace Agent::Json {

/// Bytes of text after which an answer that comes in pages ends its page.
constexpr std::size_t pageBytes = std::size_t{64} << 10U;
/// Levels of arrays and objects in a text.
constexpr int depthLimit = 64;

/// A text that is no JSON; the message says what is wrong and, where it can be told, at which line and column.
class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A text that holds more values than wanted.
class TooMany : public Error {
  public:
    using Error::Error;
};

/// Reads one JSON value, on any thread. @param valueLimit most values, of which each scalar, array and object is one.
/// @throws TooMany, Error
State::Datum parse(std::string_view text, std::size_t valueLimit = SIZE_MAX);

/// How many values it is; counts to `most` and no further.
std::size_t valuesOf(const State::Datum& datum, std::size_t most);

/// Tells plain data to a writer.
void write(Text::Writer& writer, const State::Datum& datum);
/// Plain data as JSON.
std::string textOf(const State::Datum& datum);
/// About how many bytes that JSON has; counts to `most` and little further.
std::size_t lengthOf(const State::Datum& datum, std::size_t most = SIZE_MAX);

/// Tells a typed value to a writer, field by field from the list that its type has (state/Value.h): the same as its
/// plain data, without building it.
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
        writer.list(State::elementsOf(value),
                    [&](const auto& element) { writeValue(writer, typename T::Element(element)); });
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
