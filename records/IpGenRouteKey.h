// Routing::Multicast::Fib::IpGenRouteKey: key of a multicast route, its source prefix and group prefix. A
// route without a source, a (*,G) route, has source address zero.
#pragma once

#include "records/IpAddr.h"
#include "state/Value.h"

#include <compare>
#include <cstdint>

namespace Routing::Multicast::Fib {

struct IpGenRouteKey {
    L3::IpGenPrefix source;
    L3::IpGenPrefix group;

    static constexpr auto describe() {
        return State::describe("Routing::Multicast::Fib::IpGenRouteKey",
                               State::field("source", &IpGenRouteKey::source),
                               State::field("group", &IpGenRouteKey::group));
    }
    /// The key of a route for one source and one group.
    static IpGenRouteKey host(L3::IpAddr source, L3::IpAddr group) {
        return State::whole<IpGenRouteKey>(L3::IpGenPrefix::host(source), L3::IpGenPrefix::host(group));
    }
    std::uint32_t hash(std::uint32_t seed) const {
        State::Hasher hasher(seed);
        if (source.address().isIpv4() && group.address().isIpv4()) {
            hasher.mix(std::uint64_t{source.ipv4().value()} << 32 | group.ipv4().value());
        } else {
            source.address().mixInto(hasher);
            group.address().mixInto(hasher);
        }
        return hasher.mix(static_cast<std::uint32_t>(source.length() << 8 | group.length())).result();
    }
    bool hasSource() const { return !source.ipv4().isZero(); }

    auto operator<=>(const IpGenRouteKey&) const = default;
};

} // namespace Routing::Multicast::Fib
