// KestrelNat::NatMrouteMatcher: which mroute requests of one VRF wait on which multicast routes. It tells, at
// the cost of three look-ups, whether a route concerns any request at all. Owned by the mroute state machine
// (NatMrouteSm.h), one per VRF; changed by request handling, asked by route update handling.
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMulticastKeys.h"
#include "state/Collection.h"
#include "state/ValueSet.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace KestrelNat {

class NatMrouteMatcher final : public State::Publisher {
  public:
    /// The requests that wait on one route; a value.
    class MrouteKeySet {
      public:
        using Element = NatMrouteKey;
        static constexpr std::string_view typeName = "KestrelNat::NatMrouteMatcher::MrouteKeySet";

        MrouteKeySet() = default;
        explicit MrouteKeySet(std::string_view text); // fatal: sets are not built from text

        /// Inserts if absent.
        void mrouteKeyIs(const NatMrouteKey& key) { mrouteKey_.insert(key); }
        /// Removes if present.
        void mrouteKeyDel(const NatMrouteKey& key) { mrouteKey_.erase(key); }
        void mrouteKeyDelAll() { mrouteKey_.clear(); }
        bool mrouteKeyHas(const NatMrouteKey& key) const { return mrouteKey_.has(key); }
        /// The set itself: mrouteKey().forEach(...), mrouteKey().size().
        const auto& mrouteKey() const { return mrouteKey_; }
        std::size_t elementCount() const { return mrouteKey_.size(); }
        explicit operator bool() const { return !mrouteKey_.empty(); }

        std::uint32_t hash(std::uint32_t seed) const { return mrouteKey_.hash(seed); }
        bool operator==(const MrouteKeySet&) const = default;
        auto operator<=>(const MrouteKeySet&) const = default;

        void insert(const NatMrouteKey& key) { mrouteKey_.insert(key); }
        std::vector<NatMrouteKey> elements() const { return mrouteKey_.elements(); }

      private:
        State::ValueSet<NatMrouteKey, 1905715306U> mrouteKey_;
    };

    /// A new, empty matcher.
    static State::Handle<NatMrouteMatcher> NatMrouteMatcherIs();

    /// Files `key` under `sg`, the flow that it asks for, or takes it from there. Adding what is there and
    /// removing what is not change nothing.
    void add(const MrouteSourceAndGroup& sg, const NatMrouteKey& key);
    void remove(const MrouteSourceAndGroup& sg, const NatMrouteKey& key);

    /// Whether a request waits on the route `sg`.
    bool matches(const MrouteSourceAndGroup& sg) const;
    /// For which flows requests wait on it: the route's own, (any, group), (source, any).
    struct Waiting {
        bool own;
        bool anySource;
        bool anyGroup;
        explicit operator bool() const { return own || anySource || anyGroup; }
    };
    Waiting waiting(const MrouteSourceAndGroup& sg) const;
    /// Whether no request waits at all.
    bool empty() const;

    /// A key stands in one of the three collections: requests for any source by group, for any group by
    /// source, others by both. No member holds an empty set (add and remove, which keep it so, are the only
    /// writers), so that membership alone tells that a request waits.
    STATE_MAP(0, sourcesWithAnyGroup, L3::IpAddr, MrouteKeySet, 1476880217U)
    STATE_MAP(1, groupsWithAnySource, L3::IpAddr, MrouteKeySet, 1004865696U)
    STATE_MAP(2, sourceGroups, MrouteSourceAndGroup, MrouteKeySet, 1741118936U)

  private:
    template <class Change>
    void edit(const MrouteSourceAndGroup& sg, Change change);
};

/// The same as NatMrouteMatcher::NatMrouteMatcherIs; registered for creation by type name.
State::Handle<NatMrouteMatcher> natMrouteMatcherFactory();

} // namespace KestrelNat
