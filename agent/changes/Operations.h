// The one set of operations behind everything: the control socket, scenario files, preloaded state, the kernel
// source and tests all change and read the agent's stores through it and get the same typed results.
//
// Every change is held against types and guards before anything happens; what is refused changes nothing and says
// where and why (Refusal). The guards are the same for everybody. Values are plain data (state/Datum.h). The
// application owns it beside the Host; it is used on the loop's thread only and never from inside a reactor.
//
// Read next: host/Paths.h, what can be addressed; Guards.h, what is refused.
#pragma once

#include "agent/changes/Answers.h"
#include "agent/changes/Guards.h"
#include "agent/changes/NameSweep.h"
#include "agent/host/Host.h"
#include "agent/host/Paths.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Agent {

struct ApplyResult {
    std::size_t changed = 0;           // changes that changed something
    std::vector<AnswerChange> answers; // as each is in the end, in order of its first change
};

class Operations {
  public:
    /// @param host outlives it; the plug-in has been loaded.
    explicit Operations(Host& host);

    /// What kind of entity stands, or would stand, at the path. @throws Refusal for an unknown path.
    const State::EntityType& typeAt(std::string_view path) const;
    /// The attribute's description. @throws Refusal for an unknown path or attribute.
    const State::Attribute& attributeAt(std::string_view path, std::string_view attribute) const;
    /// The value of a value attribute (no key), or of one member; nothing when it, or the entity at the path, is
    /// not there. A set's member has the value null.
    /// @throws Refusal for an unknown path or attribute, or a key that is none.
    std::optional<State::Datum> value(std::string_view path, std::string_view attribute,
                                      const State::Datum* key = nullptr) const;
    /// Visits members in iteration order with visit(key, value) until it answers false, from the first or from the
    /// one behind `after`; the value of a set's is null. None when there is no entity at the path.
    /// @return how many members the whole collection has.
    /// @throws Refusal for an unknown path or attribute, or when `after` is no member.
    std::size_t eachMember(std::string_view path, std::string_view attribute, const State::Datum* after,
                           const State::MemberVisitor& visit) const;

    /// Checks and carries out one change; true if something changed. @throws Refusal
    bool change(const Change& change);
    /// Checks all, each against the state as the earlier ones leave it, and carries out none.
    /// @throws Refusal with the index, or if it comes from a line with that, of the first that is refused.
    void check(std::span<const Change> changes);
    /// Checks all, then carries out all in order in one turn.
    /// @throws Refusal as check() does; nothing was changed then.
    ApplyResult apply(std::span<const Change> changes);

    Host& host() const { return host_; }
    /// Who holds interfaces beside the stores adds itself; who names them directly does so in its roomFor().
    NameSweep& names() { return names_; }
    const NameSweep& names() const { return names_; }

    /// Since the start.
    struct Counters {
        std::uint64_t changes = 0; // carried out that changed something
        std::uint64_t refused = 0; // by a guard
    };
    const Counters& counters() const { return counters_; }
    /// Counts a change that a writer carried out itself, as no guard could have refused it.
    void changedDirectly(bool changed) { counters_.changes += changed ? 1 : 0; }

  private:
    GuardFacts facts() const { return GuardFacts(host_, guardMemory_); }
    GuardMemory checkAll(std::span<const Change> changes);
    GuardMemory checkEach(std::span<const Change> changes);
    void checkOne(const Change& change, GuardFacts& facts);
    bool carryOut(const Change& change);
    bool carryOutChecked(const Change& change);
    ApplyResult carryOutAll(std::span<const Change> changes);

    Host& host_;
    Paths paths_;
    NameSweep names_;
    GuardMemory guardMemory_;
    Counters counters_;
};

} // namespace Agent
