// What a scenario expects: answers as they should be, and trace lines that should or should not have been
// written since the last mark.
#pragma once

#include "agent/Operations.h"
#include "agent/ScenarioWords.h"
#include "agent/StateCommands.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>

namespace Agent {

class Expectations {
  public:
    explicit Expectations(const Operations& operations)
        : operations_(operations) {}

    /// `expect` looks at trace records from now on.
    void mark();
    /// Holds what the words say (behind "expect") against the state.
    /// @return {"held": true}.
    /// @throws RpcError expectationFailed, its data {expected, actual}; OperationError for malformed words.
    nlohmann::json expect(WordReader& words) const;
    /// Reads an expectation without holding it against anything. @throws OperationError for malformed words.
    void check(WordReader& words) const;

  private:
    void expectAnswer(WordReader& words, bool isDry) const;
    void expectTrace(WordReader& words, bool isDry) const;

    const Operations& operations_;
    std::uint64_t mark_ = 0;
};

} // namespace Agent
