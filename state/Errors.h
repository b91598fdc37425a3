// The errors that the system raises. Each text is complete: it names the type, the attribute or the place,
// and what was given. Texts that more than one place needs are made here, so that each exists once. Broken
// invariants are no errors: they end the process (state/Fatal.h).
#pragma once

#include <cstddef>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace State {

class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A value type refuses a value.
class RangeError : public Error {
  public:
    using Error::Error;
};

/// A text or plain datum is none of the type it was read for.
class ParseError : public Error {
  public:
    using Error::Error;
    /// What went wrong with `attribute` of `typeName`. An error inside a nested value (`cause` is its text)
    /// becomes one of the outer attribute this way.
    ParseError(std::string_view typeName, std::string_view attribute, std::string_view cause);

    /// The attribute, if it was told.
    const std::string& attribute() const { return attribute_; }

  private:
    std::string attribute_;
};

/// A mutator was handed null where it needs an object, as in
/// "null argument to mutator: NatMrouteSm::McastMfibSm::lumenRoute".
class NullArgumentError : public Error {
  public:
    NullArgumentError(std::string_view typeName, std::string_view attribute);
};

/// An object of the type cannot be made as asked.
class CreationError : public Error {
  public:
    using Error::Error;
    /// Wrong arguments: `taken` of them are what the type's creator takes.
    CreationError(std::string_view typeName, std::span<const std::string> given, std::size_t taken);
};

/// A shared-memory table found its memory damaged; the table's corruption handler gets the text.
class CorruptionError : public Error {
  public:
    using Error::Error;
};

/// No type of that name is registered.
class UnknownTypeError : public Error {
  public:
    explicit UnknownTypeError(std::string_view typeName);
};

/// Text of the range error for a string that is longer than `limit` bytes:
/// `L3::VrfName::length > 100 not allowed, not 103: "aaa..."`, with the whole value.
std::string lengthErrorText(std::string_view typeName, std::size_t limit, std::string_view value);

/// Text of the fatal assertion that guards reading the entity at `path`. `why` says what is wrong with it.
std::string unsafeAccessText(std::string_view typeName, std::string_view path, std::string_view why);

} // namespace State
