// The agent's guards: what a client must not do, because the plug-in would end the process or answers would
// go wrong. One function a rule; each says in its error which rule it is and what to do instead.
//
// Operations.h owns them and asks before every change that is not raw. In a list of changes each is judged by
// the state as the earlier ones leave it, which GuardFacts.h works out.
#pragma once

#include "agent/changes/GuardFacts.h"

namespace Agent {

class Guards {
  public:
    /// @param host outlives it. Listens to the host's request sets from now on.
    explicit Guards(const Host& host)
        : inputs_(host) {}

    /// The facts as they are now, to be fed with changes; they hold until something is changed.
    GuardFacts facts() const { return GuardFacts(inputs_, vrfOddities_); }
    /// Refuses a change whose types are in order. @throws Refusal of kind guard
    void check(const Change& change, const Place& place, const GuardFacts& facts) const;
    /// The changes that the facts were fed with have been carried out.
    void carriedOut(const GuardFacts& facts) { vrfOddities_ = facts.vrfOddities(); }

  private:
    GuardInputs inputs_;
    VrfOddities vrfOddities_;
};

} // namespace Agent
