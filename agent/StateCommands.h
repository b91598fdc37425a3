// The commands of the grammar that describe state, turned into changes (Operations.h):
//
//     vrf NAME [id N] [multicast on|off]                 no vrf NAME
//     route VRF TYPE SOURCE GROUP oifs INTF... [not-ready]   no route VRF TYPE SOURCE GROUP      TYPE:
//     static, sparse request mroute|mgroup intf I vrf V vlan N source S group G [type T]   no request ... S,
//     G: any group VRF SOURCE GROUP vlan N id M                 no group VRF SOURCE GROUP vlan N egress all
//     on|off set PATH ATTRIBUTE [KEY] [VALUE]                   del PATH ATTRIBUTE KEY       KEY, VALUE:
//     JSON, or a bare word
//
// `vrf` and `route` write whichever source of routes the plug-in chose. Each line is judged by the state as
// the lines before it leave it: a name that an earlier line gave an identifier is known to a later one. Read
// next: ScenarioGrammar.h, its user.
#pragma once

#include "agent/Operations.h"
#include "agent/ScenarioWords.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

/// A request as its words name it: the path and attribute of its collection, of its answer, and the key.
struct NamedRequest {
    bool isMroute = true;
    State::Datum key;

    std::string_view requestPath() const { return isMroute ? "api/mroute/req" : "api/mgroup/req"; }
    std::string_view requestAttribute() const { return isMroute ? "mrouteReq" : "mgroupReq"; }
    std::string_view answerPath() const { return isMroute ? "api/mroute/resp" : "api/mgroup/resp"; }
    std::string_view answerAttribute() const { return isMroute ? "mrouteResp" : "mgroupId"; }
};

class StateCommands {
  public:
    /// @param operations outlives it; a fresh StateCommands serves one list of lines.
    explicit StateCommands(const Operations& operations)
        : operations_(operations) {}

    /// Appends the changes that a line stands for; false if it is no state command (nothing was read then).
    /// @throws OperationError for a state command that is malformed or names what is not there.
    bool compile(std::vector<std::string> given, bool raw, std::vector<Change>& changes);

    /// Reads "mroute intf I vrf V vlan N source S group G [type T]".
    NamedRequest request(WordReader& words) const;

  private:
    /// Indexes of the interfaces that a Quill table knows, with those that earlier lines took.
    struct Indexes {
        std::map<std::string, std::uint64_t> byIntf;
        std::map<std::uint64_t, std::string> byIndex;
    };

    void vrf(WordReader& words);
    void noVrf(WordReader& words);
    void route(WordReader& words, bool isRemoval);
    void requestChange(WordReader& words, bool isRemoval);
    void group(WordReader& words, bool isRemoval);
    void egress(WordReader& words);
    void set(WordReader& words);
    void del(WordReader& words);

    std::uint32_t vrfId(const std::string& name) const;
    std::string tablePath(const std::string& vrfName, bool isSparse) const;
    std::uint64_t oifIndex(const std::string& path, const std::string& intf);
    void add(Change change);

    const Operations& operations_;
    std::map<std::string, std::uint32_t, std::less<>> vrfIds_; // that earlier lines gave; 0 is none
    std::map<std::string, Indexes> indexes_;                   // by table path
    std::vector<Change>* changes_ = nullptr;
    bool raw_ = false;
};

/// KEY and VALUE of the grammar: JSON, or a bare word, which is a string.
State::Datum datumOfWord(const std::string& word);

} // namespace Agent
