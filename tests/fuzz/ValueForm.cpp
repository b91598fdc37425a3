// Keys and values in their text form: what parses prints so that it parses back to the same.
#include "KestrelNat/KestrelNatMulticastSm/NatMulticastKeys.h"
#include "records/IntfSet.h"
#include "records/LumenFib.h"
#include "records/MrouteGroup.h"
#include "records/NatMroute.h"
#include "records/QuillFib.h"
#include "state/Errors.h"
#include "state/Value.h"

#include <cstdlib>
#include <string_view>

namespace {

template <class T>
void tryAs(std::string_view text) {
    const L3::IntfId::Provisional asking; // the names stay few
    try {
        const T value = State::parseValue<T>(text);
        const std::string printed = State::valueText(value);
        if (State::parseValue<T>(printed) != value)
            std::abort();
    } catch (const State::Error&) { // what is wrong with the text
    }
}

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    tryAs<KestrelNat::NatMrouteKey>(text);
    tryAs<KestrelNat::NatMcastRouteKey>(text);
    tryAs<KestrelNat::VrfIdMrouteSourceAndGroup>(text);
    tryAs<KestrelNat::MrouteIntfAndVlan>(text);
    tryAs<KestrelL3::IpMcastKey>(text);
    tryAs<Routing::Multicast::Fib::IpGenRouteKey>(text);
    tryAs<Quill::Multicast::Fib::Route>(text);
    tryAs<L3::IpGenPrefix>(text);
    return 0;
}
