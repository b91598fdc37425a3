// The agent's guards: what a client must not do, because the plug-in would end the process or answers would
// go wrong. One function a rule; each says in its error which rule it is and what to do instead.
//
// Operations.h asks before every change that is not raw. It makes a GuardFacts for each list of changes, feeds it
// change by change, and keeps what it remembers when the list has been carried out.
#pragma once

#include "agent/host/Host.h"
#include "agent/host/Paths.h"
#include "records/RouteStatus.h"

#include <array>
#include <bitset>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Agent {

/// What changes that were carried out have left behind and the stores don't show.
struct GuardMemory {
    using Names = std::set<std::string, std::less<>>;
    Names addedUnidentified;       // VRFs that the plug-in has under an identifier that is no longer there
    Names addedIncomplete;         // VRFs that the plug-in added without both their FIBs
    std::bitset<256> requestTypes; // that some request has had
};

/// The facts by which a change is judged: the state of VRFs and requests as it would be after the changes of a list
/// that were checked before it. Only what a guard asks for is kept, laid over the stores.
class GuardFacts {
  public:
    struct Vrf {
        std::optional<std::uint32_t> id; // of the entry; nothing: no entry
        bool enabled = false;
        std::array<bool, 2> hasTable{}; // of the source in force, by RouteType
        bool isAdded = false;           // the plug-in has it in its route map

        bool hasBoth() const { return hasTable[0] && hasTable[1]; }
    };

    /// @param host outlives it.
    GuardFacts(const Host& host, GuardMemory memory)
        : host_(host)
        , memory_(std::move(memory)) {}

    Vrf vrf(std::string_view name) const;
    /// Whether the plug-in has the tables of the VRF that are in, or under, such a place.
    bool usesTables(const Place& place, std::string_view name) const {
        return isOfSource(place) && vrf(name).enabled;
    }
    /// Whether the VRF whose table or FIB is at the place is there.
    bool belongsToVrf(const Place& place) const {
        const Vrf owner = vrf(place.vrf);
        return isOfSource(place) && (owner.enabled || owner.id);
    }
    /// Another VRF that has the identifier.
    std::optional<std::string> holderOf(std::uint32_t id, std::string_view exceptName) const;
    /// A VRF that the plug-in has without both its tables or FIBs, or would once it is identified.
    std::optional<std::string> incompleteVrf() const;
    bool egressFromAllVrfs() const;

    /// Whether there is a request that differs from `key` by its type alone.
    bool hasDuplicate(const Service& service, RequestKey key) const;
    /// Whether any request is answered from route tables.
    bool hasRequestsForRoutes() const;

    /// The identifier that a write to a VRF's entry leaves, which had `before`.
    static std::uint32_t writtenId(const Change& change, std::uint32_t before);
    static bool isIdentified(std::string_view name, std::optional<std::uint32_t> id) {
        return id && (*id != 0 || name == "default");
    }

    /// Takes in a change whose types are in order.
    void note(const Change& change, const Place& place);
    const GuardMemory& memory() const { return memory_; }

  private:
    struct Requests {
        std::unordered_map<RequestKey, bool, RequestKeyHash> isThere; // where it differs, perhaps
        std::ptrdiff_t more = 0;                                      // members, against the collection
    };

    Vrf vrfInStores(std::string_view name) const;
    bool isAdded(std::string_view name, const Vrf& vrf) const;
    template <class Edit>
    void editVrf(std::string_view name, Edit edit);
    bool hasRequest(const Service& service, const RequestKey& key) const;
    void noteRequest(const Service& service, const RequestKey& key, bool isThere);
    bool isOfSource(const Place& place) const;
    const RequestSet& stored(const Service& service) const {
        return service.requests(*host_.stores().database);
    }

    const Host& host_;
    GuardMemory memory_;
    std::map<std::string, Vrf, std::less<>> vrfs_; // those that a change touched
    std::optional<bool> egressFromAllVrfs_;
    std::vector<Requests> requests_ = std::vector<Requests>(services().size()); // by Service::index()
};

/// Refuses a change whose types are in order. @throws Refusal of kind guard
void checkGuards(const Change& change, const Place& place, const GuardFacts& facts);

} // namespace Agent
