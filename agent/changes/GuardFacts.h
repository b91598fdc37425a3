// The facts by which the guards judge a change: the state of VRFs and requests as it would be after the
// changes of a list that were checked before it. Only what a guard asks for is kept, laid over the stores.
//
// Guards.h owns the inputs and makes a GuardFacts for each list; Operations.h feeds it change by change.
#pragma once

#include "agent/changes/Change.h"
#include "agent/host/Host.h"
#include "agent/host/Paths.h"
#include "records/NatStatus.h"
#include "records/RouteStatus.h"

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Agent {

/// The requests of one service, and how many there are of each type, followed by listening.
class RequestsByType {
  public:
    RequestsByType(const Stores& stores, const Service& service);
    ~RequestsByType();
    RequestsByType(RequestsByType&&) = delete;
    RequestsByType& operator=(RequestsByType&&) = delete;

    const RequestSet& members() const { return members_; }
    bool anyOfType(std::uint8_t type) const { return count_[type] != 0; }

  private:
    static void notified(void* self, const State::Notification& change);

    State::Handle<const State::Entity> entity_;
    const RequestSet& members_; // of entity_
    std::array<std::uint32_t, 256> count_{};
};

/// Where the facts come from.
struct GuardInputs {
    explicit GuardInputs(const Host& host);

    const Host& host;
    State::Handle<const Routing::Hardware::RouteStatus> vrfs;
    State::Handle<const Routing::Multicast::Fib::VrfEnabledStatus> vrfEnabled;
    State::Handle<const KestrelNat::CapabilityConfig> capability;
    std::deque<RequestsByType> requests; // by Service::index()
};

/// VRFs that raw changes have brought into a state that the stores don't show.
struct VrfOddities {
    using Names = std::set<std::string, std::less<>>;
    Names addedUnidentified; // the plug-in has them under an identifier that is no longer there
    Names addedIncomplete;   // the plug-in added them without both their FIBs
};

class GuardFacts {
  public:
    struct Vrf {
        std::optional<std::uint32_t> id; // of the entry; nothing: no entry
        bool enabled = false;
        std::array<bool, 2> hasTable{}; // of the source in force, by RouteType

        bool hasBoth() const { return hasTable[0] && hasTable[1]; }
    };

    GuardFacts(const GuardInputs& inputs, const VrfOddities& oddities)
        : inputs_(inputs)
        , oddities_(oddities) {}

    Vrf vrf(std::string_view name) const;
    /// Whether the plug-in has the VRF in its route map.
    bool isAdded(std::string_view name) const { return isAdded(name, vrf(name)); }
    /// Whether the plug-in has the tables of the VRF that are in, or under, such a place.
    bool usesTables(const Place& place, std::string_view name) const {
        return isOfSource(place) && vrf(name).enabled;
    }
    /// Another VRF that has the identifier.
    std::optional<std::string> holderOf(std::uint32_t id, std::string_view exceptName) const;
    /// A VRF that the plug-in has without both its tables or FIBs, or would once it is identified.
    std::optional<std::string> incompleteVrf() const;
    bool egressFromAllVrfs() const;

    bool hasRequest(const Service& service, const RequestKey& key) const;
    /// Whether there is a request that differs from `key` by its type alone.
    bool hasDuplicate(const Service& service, RequestKey key) const;
    /// Whether any request is answered from route tables.
    bool hasRequestsForRoutes() const;

    /// The identifier that a write to a VRF's entry leaves, which had `before`.
    static std::uint32_t writtenId(const Change& change, std::uint32_t before);

    /// Takes in a change whose types are in order.
    void note(const Change& change, const Place& place);

    const VrfOddities& vrfOddities() const { return oddities_; }

    static bool isIdentified(std::string_view name, std::optional<std::uint32_t> id) {
        return id && (*id != 0 || name == "default");
    }

  private:
    struct KeyHash {
        std::size_t operator()(const RequestKey& key) const { return key.hash(0); }
    };
    struct Requests {
        std::unordered_map<RequestKey, bool, KeyHash> present; // where it differs, perhaps
        std::set<std::uint8_t> types;                          // that occur there
        std::ptrdiff_t more = 0;                               // members, against the collection
    };

    Vrf vrfInStores(std::string_view name) const;
    bool isAdded(std::string_view name, const Vrf& vrf) const;
    template <class Edit>
    void editVrf(std::string_view name, Edit edit);
    void noteRequest(const Service& service, const RequestKey& key, bool present);
    bool isOfSource(const Place& place) const;
    const RequestsByType& base(const Service& service) const { return inputs_.requests[service.index()]; }

    const GuardInputs& inputs_;
    VrfOddities oddities_;
    std::map<std::string, Vrf, std::less<>> vrfs_; // those that a change touched
    /// Holders of identifiers, made when a list has a second change of VRFs.
    mutable std::optional<std::unordered_multimap<std::uint32_t, std::string>> holders_;
    std::optional<bool> egressFromAllVrfs_;
    std::vector<Requests> requests_ = std::vector<Requests>(services().size()); // by Service::index()
};

} // namespace Agent
