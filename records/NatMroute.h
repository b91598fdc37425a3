// The two ends of the mroute service: the requests, written by the NAT feature at "api/mroute/req", and the
// answers, written by the mroute state machine at "api/mroute/resp".
#pragma once

#include "records/NatMrouteKey.h"
#include "records/NatMrouteOifSet.h"
#include "state/Collection.h"
#include "state/Entity.h"

#include <string>
#include <string_view>

namespace KestrelNat {

/// What must not be posted: NatMrouteKey.h.
class NatMrouteRequestSet final : public State::Entity {
  public:
    static constexpr const char* path = "api/mroute/req";

    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    STATE_SET(0, mrouteReq, NatMrouteKey, State::seedConstant("KestrelNat::NatMrouteRequestSet::mrouteReq"))
};

/// The published answers; the mroute state machine also keeps maps of its own, named by route type.
class NatMrouteResponseMap final : public State::Entity {
  public:
    explicit NatMrouteResponseMap(std::string_view name)
        : name_(name) {}

    static constexpr const char* path = "api/mroute/resp";

    static const State::EntityType& type();
    const State::EntityType& entityType() const override { return type(); }

    const std::string& name() const { return name_; }

    /// A key hashed once for all maps of this type.
    static State::HashedKey<NatMrouteKey> hashed(const NatMrouteKey& key) {
        return {key, State::processHashSeed() ^ seed};
    }

  private:
    static constexpr std::uint32_t seed = State::seedConstant("KestrelNat::NatMrouteResponseMap::mrouteResp");

    STATE_MAP(0, mrouteResp, NatMrouteKey, NatMrouteOifSet, seed)

  private:
    std::string name_;
};

} // namespace KestrelNat
