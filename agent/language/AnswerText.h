// How a changed answer is told, once for everybody: results of lines and of `apply`, watchers, plays.
#pragma once

#include "agent/language/VrfNames.h"
#include "text/Writer.h"

#include <span>
#include <string>
#include <string_view>

namespace Agent {

/// "any" for the address zero.
std::string addressText(const L3::IpGenAddr& address);
/// An answer as the grammar writes it: its interfaces or "none", a group id; `absent` where there is none.
std::string answerWords(const Answer& answer, std::string_view absent);

/// The members of an open record: path, attribute, key, value.
/// @param withText whether there are also `vrf`, the name of the VRF that has the identifier, and `text`, the line for
/// people.
void writeAnswerMembers(Text::Writer& writer, const VrfNames& vrfs, const AnswerChange& change,
                        bool withText);
/// A list of answers; for people a line for each.
void writeAnswers(Text::Writer& writer, const VrfNames& vrfs, std::span<const AnswerChange> answers,
                  bool withText);
/// What changes came to: {changed, answers}; for people a line for each answer.
void writeApplied(Text::Writer& writer, const Operations& operations, const ApplyResult& result,
                  bool withText);

} // namespace Agent
