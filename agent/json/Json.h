// JSON and plain data (state/Datum.h): the one reader of JSON in the agent, and plain data told to a writer.
//
// Objects become records in the order of their members, a repeated name twice; numbers that are not whole, or fit
// no 64 bits, stand as such, and no type accepts them. What is read is read completely: a text with a fault
// anywhere yields nothing. Control lines, words of the grammar and the kernel configuration come through here.
#pragma once

#include "state/Datum.h"
#include "text/Writer.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace Agent::Json {

/// Levels of arrays and objects in a text.
constexpr int depthLimit = 64;

/// A text that is no JSON; the message says what is wrong and, where it can be told, at which line and column.
class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Reads one JSON value. @throws Error
State::Datum parse(std::string_view text);

/// Tells plain data to a writer.
void write(Text::Writer& writer, const State::Datum& datum);
/// Plain data as JSON.
std::string textOf(const State::Datum& datum);

} // namespace Agent::Json
