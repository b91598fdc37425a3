// Keys and values in their text form: what parses prints so that it parses back to the same, and is plain data that
// makes the same value.
#include "KestrelNat/KestrelNatMulticastSm/NatMulticastKeys.h"
#include "records/IpGenRouteKey.h"
#include "records/IpMcastKey.h"
#include "records/MrouteGroup.h"
#include "records/NatMrouteKey.h"
#include "records/VrfName.h"
#include "tests/fuzz/Require.h"

#include <string_view>

namespace {

template <class T>
void tryAs(std::string_view text) {
    T value;
    try {
        value = State::parseValue<T>(text);
    } catch (const State::Error&) { // what is wrong with the text
        return;
    }
    const std::string printed = State::valueText(value);
    constexpr bool printsItsOwnWay = State::Described<T> && requires {
        value.stringValue();
    };
    require(printsItsOwnWay || State::parseValue<T>(printed) == value,
            printed + " parses back to what it was printed from");
    require(State::fromDatum<T>(State::toDatum(value)) == value, printed + " is made again from plain data");
}

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const L3::IntfId::Provisional asking; // the names stay few
    tryAs<KestrelNat::NatMrouteKey>(text);
    tryAs<KestrelNat::NatMcastRouteKey>(text);
    tryAs<KestrelNat::MrouteSourceAndGroup>(text);
    tryAs<KestrelNat::VrfIdMrouteSourceAndGroup>(text);
    tryAs<KestrelNat::MrouteIntfAndVlan>(text);
    tryAs<KestrelL3::IpMcastKey>(text);
    tryAs<Routing::Multicast::Fib::IpGenRouteKey>(text);
    tryAs<KestrelCommon::MrouteGroup::Mgroup>(text);
    tryAs<L3::IpGenPrefix>(text);
    tryAs<L3::VrfName>(text);
    return 0;
}
