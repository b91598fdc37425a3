// A value of any of the system's types as plain data: what the agent reads and writes by reflection. Records
// keep their fields in declared order. Conversion to and from typed values is in state/Value.h.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace State {

struct Datum {
    using List = std::vector<Datum>;
    using Record = std::vector<std::pair<std::string, Datum>>;

    /// A double is a number that is not whole or too large for 64 bits: no value type takes one.
    std::variant<std::monostate, bool, std::uint64_t, std::int64_t, double, std::string, List, Record>
        content;

    Datum() = default;
    /// Out of line, for leaner users: a variant's copies are long.
    Datum(const Datum& other);
    Datum(Datum&& other) noexcept;
    Datum& operator=(const Datum& other);
    Datum& operator=(Datum&& other) noexcept;
    ~Datum();
    Datum(bool value)
        : content(value) {}
    Datum(std::uint64_t value)
        : content(value) {}
    Datum(std::int64_t value)
        : content(value) {}
    Datum(double value)
        : content(value) {}
    Datum(std::string value)
        : content(std::move(value)) {}
    Datum(std::string_view value)
        : content(std::string(value)) {}
    Datum(const char* value)
        : content(std::string(value)) {}
    Datum(List value)
        : content(std::move(value)) {}
    Datum(Record value)
        : content(std::move(value)) {}

    bool isNull() const { return std::holds_alternative<std::monostate>(content); }
    const bool* boolean() const { return std::get_if<bool>(&content); }
    const std::uint64_t* number() const { return std::get_if<std::uint64_t>(&content); }
    const double* real() const { return std::get_if<double>(&content); }
    const std::string* text() const { return std::get_if<std::string>(&content); }
    const List* list() const { return std::get_if<List>(&content); }
    const Record* record() const { return std::get_if<Record>(&content); }

    /// What it is, in words, for error texts: "a number", "an array", ...
    std::string_view kindName() const;

    bool operator==(const Datum&) const = default;
};

} // namespace State
