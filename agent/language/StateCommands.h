// The verbs that describe state, turned into changes (host/Change.h). How they are written: text/Verbs.h; KEY and
// VALUE of `set` and `del` are JSON or a bare word.
//
// Each line is judged by the state as the lines before it leave it: a name that an earlier line gave an identifier is
// known to a later one. Language.h uses it.
#pragma once

#include "agent/changes/Operations.h"
#include "agent/language/WordReader.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

/// A request as its words name it.
struct NamedRequest {
    const Service* service;
    State::Datum key;
};

/// VRFs with their identifiers (0: without one), or without an entry (nothing).
using VrfIds = std::map<std::string, std::optional<std::uint32_t>, std::less<>>;

class StateCommands {
  public:
    /// @param operations outlives it; a fresh StateCommands serves one list of lines.
    /// @param raw whether the changes pass the guards.
    /// @param vrfs that will be there by nobody's line.
    explicit StateCommands(const Operations& operations, bool raw, VrfIds vrfs = {});

    /// Appends the changes that a line stands for; false if it is no state command (nothing was read then).
    /// @param line its number, for the changes.
    /// @throws Refusal for a state command that is malformed or names what is not there.
    bool compile(const std::vector<std::string>& words, std::size_t line = 0);
    const std::vector<Change>& changes() const { return changes_; }

    /// Reads "SERVICE intf I vrf V vlan N source S group G [type T]".
    NamedRequest request(WordReader& words) const;

  private:
    // Each takes back what it describes where `op` is del, which the line says by "no" in front.
    void vrf(WordReader& words, Change::Op op);
    void route(WordReader& words, Change::Op op);
    void request(WordReader& words, Change::Op op);
    void group(WordReader& words, Change::Op op);
    void egress(WordReader& words, Change::Op op);
    void set(WordReader& words, Change::Op op);
    void del(WordReader& words, Change::Op op);

    std::optional<std::uint32_t> idOf(const std::string& vrfName) const;
    std::uint32_t readVrfId(WordReader& words) const;
    void add(Change change);
    void noteVrf(const Change& change);

    struct Row {
        std::string_view verb;
        void (StateCommands::*read)(WordReader& words, Change::Op op);
        bool isRemovable; // by "no" in front of it
    };
    static const Row table[];

    const Operations& operations_;
    const bool raw_;
    std::unique_ptr<RouteDraft> draft_;
    VrfIds vrfs_; // those that earlier lines named or took back
    std::vector<Change> changes_;
    std::size_t line_ = 0; // that is being read
};

/// KEY and VALUE of the grammar: JSON, or a bare word, which is a string.
State::Datum datumOfWord(const std::string& word);

} // namespace Agent
