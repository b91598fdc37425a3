// Value types and what every one of them can do: be hashed, printed, parsed, compared and turned into plain
// data.
//
// A structured value is an aggregate with one list of its fields (Describe.h); everything else is derived from that
// list. Scalars (addresses, identifiers) name themselves by `typeName` and convert from and to text or a number.
// ValueTraits<T> is the one table of operations per type; ValueType is the same table at run time, found by qualified
// name.
//
// The string form of a structured value is `KestrelNat::MrouteSourceAndGroup(sourceIp=10.0.0.1, groupIp=239.1.1.1)`:
// strings are quoted and escaped, nested values stand in their own form. A type may print differently
// (`stringValue()`).
#pragma once

#include "state/Datum.h"
#include "state/Describe.h"
#include "state/Errors.h"
#include "state/TextReader.h"

#include <concepts>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace State {

/// A scalar with a name that prints as text and is built from text (raising ParseError or RangeError).
template <class T>
concept TextScalar = requires(const T& value, std::string_view text) {
    { T::typeName } -> std::convertible_to<std::string_view>;
    { value.stringValue() } -> std::convertible_to<std::string>;
    { T::fromString(text) } -> std::same_as<T>;
};

/// A scalar with a name that is a number (`value()`), built from a number (raising RangeError).
template <class T>
concept NumberScalar = requires(const T& value) {
    { T::typeName } -> std::convertible_to<std::string_view>;
    { value.value() } -> std::convertible_to<std::uint64_t>;
    { T::fromNumber(std::uint64_t{}) } -> std::same_as<T>;
};

/// A value that is a set of elements: `insert` adds one; it is a range, or its elements() are.
template <class T>
concept SetValue = requires(T& set, const typename T::Element& element) {
    { T::typeName } -> std::convertible_to<std::string_view>;
    set.insert(element);
};

/// The elements of a set value as a range, in order.
template <class T>
decltype(auto) elementsOf(const T& set) {
    if constexpr (requires { set.elements(); })
        return set.elements();
    else
        return (set);
}

/// An enumeration with a name and named enumerators (specialise for each): `typeName` and
/// `enumerators`, an array of {number, name}.
template <class T>
struct EnumNames;

template <class T>
concept NamedEnum = std::is_enum_v<T> && requires {
    EnumNames<T>::typeName;
};

enum class ValueKind { boolean, number, text, enumeration, record, set };

/// The operations of one type. Every specialisation has: `kind`, `name()`, `print` (value form), `read` (back
/// from it), `toDatum`, `fromDatum` (raises ParseError that names type and field; RangeError where a type
/// refuses).
template <class T>
struct ValueTraits;

/// The value form of `value` appended to `out`: strings quoted.
template <class T>
void appendValue(std::string& out, const T& value) {
    ValueTraits<T>::print(out, value);
}

template <class T>
std::string valueText(const T& value) {
    std::string out;
    appendValue(out, value);
    return out;
}

/// Builds a T from its value form. Errors: ParseError naming type and attribute; RangeError where a type
/// refuses.
template <class T>
T parseValue(std::string_view text) {
    TextReader reader(ValueTraits<T>::name(), text);
    T value{};
    ValueTraits<T>::read(reader, value);
    reader.expectEnd();
    return value;
}

template <class T>
Datum toDatum(const T& value) {
    return ValueTraits<T>::toDatum(value);
}

template <class T>
T fromDatum(const Datum& datum) {
    T value{};
    ValueTraits<T>::fromDatum(datum, value);
    return value;
}

// ---- the traits ---------------------------------------------------------------------------------------------

/// Raises ParseError: `typeName` cannot be built from what is there.
[[noreturn]] void wrongKind(std::string_view typeName, std::string_view wanted, const Datum& datum);
void appendQuoted(std::string& out, std::string_view text);
/// As it is, or quoted where it holds a comma or a bracket, or begins with a quote.
void appendWord(std::string& out, std::string_view text);

template <>
struct ValueTraits<bool> {
    static constexpr ValueKind kind = ValueKind::boolean;
    static constexpr std::string_view name() { return "bool"; }
    static void print(std::string& out, bool value) { out += value ? "true" : "false"; }
    static void read(TextReader& reader, bool& value) { value = reader.boolean(); }
    static Datum toDatum(bool value) { return Datum(value); }
    static void fromDatum(const Datum& datum, bool& value) {
        if (datum.boolean() == nullptr)
            wrongKind(name(), "true or false", datum);
        value = *datum.boolean();
    }
};

template <class T>
concept PlainNumber = std::unsigned_integral<T> && !std::same_as<T, bool>;

template <PlainNumber T>
struct ValueTraits<T> {
    static constexpr ValueKind kind = ValueKind::number;
    static constexpr std::string_view name() {
        return sizeof(T) == 1 ? "uint8" : sizeof(T) == 2 ? "uint16" : sizeof(T) == 4 ? "uint32" : "uint64";
    }
    static void print(std::string& out, T value) { out += std::to_string(value); }
    static T narrow(std::uint64_t number) {
        if (number > std::numeric_limits<T>::max()) {
            throw RangeError(std::string(name()) + " takes no number above " +
                             std::to_string(std::numeric_limits<T>::max()) + ", not " +
                             std::to_string(number));
        }
        return static_cast<T>(number);
    }
    static void read(TextReader& reader, T& value) { value = narrow(reader.number()); }
    static Datum toDatum(T value) { return Datum(static_cast<std::uint64_t>(value)); }
    static void fromDatum(const Datum& datum, T& value) {
        if (datum.number() == nullptr)
            wrongKind(name(), "a number", datum);
        value = narrow(*datum.number());
    }
};

template <>
struct ValueTraits<std::string> {
    static constexpr ValueKind kind = ValueKind::text;
    static constexpr std::string_view name() { return "string"; }
    static void print(std::string& out, const std::string& value) { appendQuoted(out, value); }
    static void read(TextReader& reader, std::string& value) { value = reader.quoted(); }
    static Datum toDatum(const std::string& value) { return Datum(value); }
    static void fromDatum(const Datum& datum, std::string& value) {
        if (datum.text() == nullptr)
            wrongKind(name(), "a string", datum);
        value = *datum.text();
    }
};

template <TextScalar T>
struct ValueTraits<T> {
    static constexpr ValueKind kind = ValueKind::text;
    static constexpr std::string_view name() { return T::typeName; }
    /// A string type stands quoted always, others only where their text holds what ends a word.
    static constexpr bool quoted = std::convertible_to<const T&, std::string_view>;
    static void print(std::string& out, const T& value) {
        if constexpr (quoted)
            appendQuoted(out, value);
        else
            appendWord(out, value.stringValue());
    }
    static void read(TextReader& reader, T& value) {
        if (quoted || reader.atQuote())
            value = T::fromString(reader.quoted());
        else
            value = T::fromString(reader.word());
    }
    static Datum toDatum(const T& value) { return Datum(std::string(value.stringValue())); }
    static void fromDatum(const Datum& datum, T& value) {
        if (datum.text() == nullptr)
            wrongKind(name(), "a string", datum);
        value = T::fromString(*datum.text());
    }
};

template <NumberScalar T>
struct ValueTraits<T> {
    static constexpr ValueKind kind = ValueKind::number;
    static constexpr std::string_view name() { return T::typeName; }
    static void print(std::string& out, const T& value) { out += std::to_string(value.value()); }
    static void read(TextReader& reader, T& value) { value = T::fromNumber(reader.number()); }
    static Datum toDatum(const T& value) { return Datum(static_cast<std::uint64_t>(value.value())); }
    static void fromDatum(const Datum& datum, T& value) {
        if (datum.number() == nullptr)
            wrongKind(name(), "a number", datum);
        value = T::fromNumber(*datum.number());
    }
};

/// Enumerations print as the enumerator's name; a number without one prints in decimal. Both are read.
template <NamedEnum T>
struct ValueTraits<T> {
    using Number = std::underlying_type_t<T>;
    static constexpr ValueKind kind = ValueKind::enumeration;
    static constexpr std::string_view name() { return EnumNames<T>::typeName; }
    static void print(std::string& out, T value) {
        for (const auto& [number, text] : EnumNames<T>::enumerators) {
            if (number == value) {
                out += text;
                return;
            }
        }
        out += std::to_string(static_cast<Number>(value));
    }
    static T fromText(std::string_view text) {
        for (const auto& [number, known] : EnumNames<T>::enumerators)
            if (known == text)
                return number;
        throw ParseError(std::string(name()) + " has no enumerator \"" + std::string(text) + "\"");
    }
    static T fromNumber(std::uint64_t number) { return static_cast<T>(ValueTraits<Number>::narrow(number)); }
    static void read(TextReader& reader, T& value) {
        value = reader.atNumber() ? fromNumber(reader.number()) : fromText(reader.word());
    }
    static Datum toDatum(T value) {
        for (const auto& [number, text] : EnumNames<T>::enumerators)
            if (number == value)
                return Datum(text);
        return Datum(static_cast<std::uint64_t>(value));
    }
    static void fromDatum(const Datum& datum, T& value) {
        if (datum.text() != nullptr)
            value = fromText(*datum.text());
        else if (datum.number() != nullptr)
            value = fromNumber(*datum.number());
        else
            wrongKind(name(), "an enumerator's name or number", datum);
    }
};

/// Raises the error that came out of field `name` again, as an error of that field.
[[noreturn]] void rethrowInField(std::string_view typeName, std::string_view name);
[[noreturn]] void unknownField(std::string_view typeName, std::string_view name);

template <Described T>
struct ValueTraits<T> {
    static_assert(std::tuple_size_v<decltype(T::describe().fields)> == memberCount<T>,
                  "describe() lists every member, so that all that is derived from it follows");
    static constexpr ValueKind kind = ValueKind::record;
    static constexpr std::string_view name() { return T::describe().typeName; }

    template <class Visit>
    static void eachField(Visit visit) {
        std::apply([&](const auto&... fields) { (visit(fields), ...); }, T::describe().fields);
    }

    static void print(std::string& out, const T& value) {
        if constexpr (requires { value.stringValue(); }) {
            out += value.stringValue();
        } else {
            out += name();
            char separator = '(';
            eachField([&](const auto& field) {
                out += separator;
                if (separator == ',')
                    out += ' ';
                separator = ',';
                out += field.name;
                out += '=';
                appendValue(out, value.*(field.member));
            });
            out += ')';
        }
    }

    static void read(TextReader& reader, T& value) {
        reader.expect(name());
        std::string_view before = "(";
        eachField([&](const auto& field) {
            try {
                reader.expect(before);
                reader.expect(field.name);
                reader.expect("=");
                using Member = std::remove_cvref_t<decltype(value.*(field.member))>;
                ValueTraits<Member>::read(reader, value.*(field.member));
            } catch (const Error&) {
                rethrowInField(name(), field.name);
            }
            before = ", ";
        });
        reader.expect(")");
    }

    static Datum toDatum(const T& value) {
        Datum::Record record;
        eachField([&](const auto& field) {
            record.emplace_back(std::string(field.name), State::toDatum(value.*(field.member)));
        });
        return Datum(std::move(record));
    }

    /// Fields that are left out keep their defaults; a field that the type does not have is refused.
    static void fromDatum(const Datum& datum, T& value) {
        if (datum.record() == nullptr)
            wrongKind(name(), "an object", datum);
        for (const auto& [given, content] : *datum.record()) {
            bool known = false;
            eachField([&, &givenName = given, &givenContent = content](const auto& field) {
                if (field.name == givenName) {
                    known = true;
                    try {
                        using Member = std::remove_cvref_t<decltype(value.*(field.member))>;
                        ValueTraits<Member>::fromDatum(givenContent, value.*(field.member));
                    } catch (const Error&) {
                        rethrowInField(name(), field.name);
                    }
                }
            });
            if (!known)
                unknownField(name(), given);
        }
    }
};

/// Sets print as their elements in order; they are read from arrays of plain data only.
template <SetValue T>
struct ValueTraits<T> {
    using Element = typename T::Element;
    static constexpr ValueKind kind = ValueKind::set;
    static constexpr std::string_view name() { return T::typeName; }
    static void print(std::string& out, const T& set) {
        if constexpr (requires { set.stringValue(); }) {
            out += set.stringValue();
        } else {
            out += name();
            out += '{';
            std::string_view separator;
            for (const auto& element : elementsOf(set)) {
                out += separator;
                separator = ", ";
                appendValue(out, Element(element));
            }
            out += '}';
        }
    }
    static void read(TextReader& reader, T& set) { set = T(reader.rest()); }
    static Datum toDatum(const T& set) {
        Datum::List list;
        for (const auto& element : elementsOf(set))
            list.push_back(State::toDatum(Element(element)));
        return Datum(std::move(list));
    }
    static void fromDatum(const Datum& datum, T& set) {
        if (datum.list() == nullptr)
            wrongKind(name(), "an array", datum);
        T built;
        for (const Datum& element : *datum.list())
            built.insert(State::fromDatum<Element>(element));
        set = std::move(built);
    }
};

} // namespace State
