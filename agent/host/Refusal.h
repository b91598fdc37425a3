// Why something that was asked of the agent is not done: what is wrong, of which kind, and where. Whoever refuses
// throws one and has changed nothing; those who asked make of it an error object, a line with file and number, or
// a status.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace Agent {

enum class RefusalKind : std::uint8_t {
    invalid,     // not known, malformed, or of the wrong type
    guard,       // a guard refuses the change; `raw` lets it through
    limit,       // too large, too many, or not now
    expectation, // an `expect` did not hold
};

/// The place that a refusal is about, as far as it has one.
struct Where {
    std::string path = {};
    std::string attribute = {};
    std::string field = {}; // of the key or value, if one is meant; else "key", "value" or a parameter
    std::optional<std::size_t> index = {}; // of the change in its list, from 0
    std::optional<std::size_t> line = {};  // of the line in its list, from 1
    std::optional<std::size_t> word = {};  // of the word in its line, from 1
    std::string expected = {};             // both sides of an expectation
    std::string actual = {};
};

class Refusal : public std::runtime_error {
  public:
    Refusal(RefusalKind kind, const std::string& message, Where where = {})
        : std::runtime_error(message)
        , kind_(kind)
        , where_(std::move(where)) {}
    /// The common case: of kind invalid.
    explicit Refusal(const std::string& message, Where where = {})
        : Refusal(RefusalKind::invalid, message, std::move(where)) {}

    RefusalKind kind() const { return kind_; }
    const Where& where() const { return where_; }
    /// For who passes it on and knows more of the place.
    Where& where() { return where_; }

  private:
    RefusalKind kind_;
    Where where_;
};

} // namespace Agent
