// The verbs that describe state, turned into changes (changes/Change.h):
//
//     vrf NAME [id N] [multicast on|off]                       no vrf NAME
//     route VRF TYPE SOURCE GROUP oifs INTF... [not-ready]     no route VRF TYPE SOURCE GROUP
//     request SERVICE intf I vrf V vlan N source S group G     no request ...
//     group VRF SOURCE GROUP vlan N id M                       no group VRF SOURCE GROUP vlan N
//     egress all on|off
//     set PATH ATTRIBUTE [KEY] [VALUE]                         del PATH ATTRIBUTE KEY
//
// TYPE is static or sparse, SERVICE mroute or mgroup, S and G an address or any, KEY and VALUE are JSON or a bare
// word. Each line is judged by the state as the lines before it leave it: a name that an earlier line gave an
// identifier is known to a later one. Language.h uses it.
#pragma once

#include "agent/changes/Operations.h"
#include "agent/language/WordReader.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

/// A request as its words name it.
struct NamedRequest {
    const Service* service;
    State::Datum key;
};

class StateCommands {
  public:
    /// @param operations outlives it; a fresh StateCommands serves one list of lines.
    explicit StateCommands(const Operations& operations);

    /// The VRF will have the identifier, by nobody's line.
    void know(const std::string& vrfName, std::uint32_t id) { vrfs_[vrfName] = id; }
    /// Appends the changes that a line stands for; false if it is no state command (nothing was read then).
    /// @throws Refusal for a state command that is malformed or names what is not there.
    bool compile(const std::vector<std::string>& words, bool raw, std::vector<Change>& changes);

    /// Reads "SERVICE intf I vrf V vlan N source S group G [type T]".
    NamedRequest request(WordReader& words) const;

  private:
    struct Row;
    static std::span<const Row> table();

    void vrf(WordReader& words);
    void noVrf(WordReader& words);
    void route(WordReader& words);
    void noRoute(WordReader& words);
    void addRequest(WordReader& words);
    void noRequest(WordReader& words);
    void group(WordReader& words);
    void noGroup(WordReader& words);
    void egress(WordReader& words);
    void set(WordReader& words);
    void del(WordReader& words);

    std::uint32_t vrfId(WordReader& words) const;
    State::Datum groupKey(WordReader& words) const;
    void add(Change change);
    void noteVrf(const Change& change);

    const Operations& operations_;
    std::unique_ptr<RouteDraft> routes_;
    // VRFs that earlier lines named with their identifiers (0: without one), or took back (nothing).
    std::map<std::string, std::optional<std::uint32_t>, std::less<>> vrfs_;
    std::vector<Change>* changes_ = nullptr;
    bool raw_ = false;
};

/// KEY and VALUE of the grammar: JSON, or a bare word, which is a string.
State::Datum datumOfWord(const std::string& word);

} // namespace Agent
