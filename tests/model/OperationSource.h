// Draws operations at random over small pools of VRFs, identifiers, interfaces and addresses, so that
// requests, routes and status rows meet often. The same seed draws the same operations. ModelDriver.h uses
// it.
#pragma once

#include "tests/model/Operation.h"
#include "tests/model/World.h"

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace Model {

class OperationSource {
  public:
    explicit OperationSource(std::uint64_t seed)
        : random_(seed) {}

    /// The next operation, which need not be allowed, chosen by what there is.
    Operation draw(const World& world);

  private:
    Operation drawVrf(const World& world);
    Operation drawRoute(const World& world);
    Operation drawRequest(Service service, const OrderedSet<RequestKey>& present);
    Operation drawGroup(const Stores& stores);

    std::size_t below(std::size_t bound) { return static_cast<std::size_t>(random_() % bound); }
    bool oneIn(std::size_t times) { return below(times) == 0; }
    template <class Pool>
    auto oneOf(const Pool& pool) {
        return *(std::begin(pool) + static_cast<std::ptrdiff_t>(below(std::size(pool))));
    }
    TableName anyTable();
    RouteKey anyRouteKey();
    Prefix prefixOf(Address address);
    std::vector<std::uint16_t> anyOifs();
    Names anyIntfs();
    RequestKey anyRequest();
    /// True the more often, the more members there are; as often as not at `level`.
    bool enough(std::size_t members, std::size_t level) { return below(members + level) < members; }

    std::mt19937_64 random_;
};

} // namespace Model
