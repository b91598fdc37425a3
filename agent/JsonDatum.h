// Plain data (state/Datum.h) from and to JSON. Records are objects, sets and lists arrays; numbers are whole.
#pragma once

#include "state/Datum.h"

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace Agent {

struct AnswerChange;

/// @throws std::invalid_argument for a number that is not whole or does not fit 64 bits.
State::Datum toDatum(const nlohmann::json& json);
nlohmann::json toJson(const State::Datum& datum);
/// `path`, `attribute`, `key` and `value` (null: the answer went).
nlohmann::json toJson(const AnswerChange& change);
/// The way back. @throws nlohmann::json::exception, std::invalid_argument
AnswerChange toAnswerChange(const nlohmann::json& json);

/// Appends the same as text. Bytes that are no UTF-8 become U+FFFD.
void appendJson(std::string& out, const State::Datum& datum);
void appendJson(std::string& out, std::string_view text);

} // namespace Agent
