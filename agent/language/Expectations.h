// What a scenario expects: answers as they should be, and trace lines that should or should not have been written
// since the last mark. Reading is apart from holding, so that a file can be checked without being played.
#pragma once

#include "agent/language/StateCommands.h"

#include <cstdint>

namespace Agent {

class Expectations {
  public:
    /// @param operations outlives it.
    /// @param settle does deferred work before an answer is looked at.
    Expectations(const Operations& operations, std::function<void()> settle)
        : operations_(operations)
        , settle_(std::move(settle)) {}

    /// Reads what stands behind "expect". The action replies {"held": true}, or throws a Refusal of kind expectation
    /// that has both sides.
    /// @param names knows the names that earlier lines gave.
    Action read(WordReader& words, const StateCommands& names);
    /// `expect trace` looks at records from now on. The action replies {"marked": the number of the next one}.
    Action mark();

  private:
    void holdAnswer(const NamedRequest& named, const std::string& expected) const;
    void holdTrace(const std::string& text, bool isAbsent) const;

    const Operations& operations_;
    std::function<void()> settle_;
    std::uint64_t mark_ = 0;
};

} // namespace Agent
