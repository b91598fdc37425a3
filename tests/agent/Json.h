// JSON as tests write and read it: members stand in order of their names, so that equal objects compare equal.
#pragma once

#include "state/Datum.h"

#include <concepts>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace AgentTest {

class Json {
  public:
    Json() = default; // null
    explicit Json(State::Datum datum);
    Json(const char* text)
        : datum_(text) {}
    Json(const std::string& text)
        : datum_(text) {}
    Json(bool value)
        : datum_(value) {}
    template <std::integral T>
    Json(T number)
        : datum_(number < 0 ? State::Datum(static_cast<std::int64_t>(number))
                            : State::Datum(static_cast<std::uint64_t>(number))) {}
    Json(const std::vector<Json>& elements);

    static Json parse(std::string_view text);
    std::string dump() const;
    const State::Datum& datum() const { return datum_; }

    // What is asked for that is not there, or of another kind, is an exception.
    bool isNull() const { return datum_.isNull(); }
    const std::string& text() const { return std::get<std::string>(datum_.content); }
    std::uint64_t number() const { return std::get<std::uint64_t>(datum_.content); }
    std::vector<Json> elements() const;
    std::size_t size() const { return elements().size(); }
    Json at(std::size_t index) const { return elements().at(index); }
    bool contains(std::string_view name) const;
    Json at(std::string_view name) const;
    /// The object with this member, in place of one of that name; null: without it.
    Json with(std::string_view name, const Json& value) const;

    bool operator==(const Json& other) const { return datum_ == other.datum_; }
    bool operator<(const Json& other) const { return dump() < other.dump(); }
    friend std::ostream& operator<<(std::ostream& out, const Json& json) { return out << json.dump(); }

  private:
    State::Datum datum_;
};

/// JSON from text in which single quotes stand for double ones, and each % for one of the parts.
Json filled(std::string_view text, const std::vector<Json>& parts);
template <class... Parts>
Json json(std::string_view text, const Parts&... parts) {
    return filled(text, {Json(parts)...});
}

/// Whether `actual` has all that `wanted` says; "..." stands for anything.
bool holds(const Json& wanted, const Json& actual);

} // namespace AgentTest
