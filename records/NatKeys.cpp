// Text forms of the request key and the answer: NatMrouteKey.h, NatMrouteOifSet.h.
#include "records/NatMrouteKey.h"
#include "records/NatMrouteOifSet.h"
#include "state/Fatal.h"
#include "state/TraceValue.h"
#include "state/ValueType.h"

#include <algorithm>

namespace KestrelNat {

std::string NatMrouteKey::stringValue() const {
    std::string text = "NatMrouteKey (I=";
    State::appendValue(text, intf);
    text += ", vrfId=" + std::to_string(vrfId.value());
    text += ", V=" + std::to_string(vlanId);
    text += ", S=" + sourceIp.stringValue();
    text += ", G=" + groupIp.stringValue();
    text += "), type=";
    State::appendValue(text, type);
    return text;
}

NatMrouteOifSet::NatMrouteOifSet(std::string_view) {
    State::fatal("No String constructor for NatMrouteOifSet - has collection", __FILE__, __LINE__,
                 __PRETTY_FUNCTION__);
}

std::string NatMrouteOifSet::stringValue() const {
    std::string text = "NatMrouteOifSet {";
    for (const L3::IntfId member : oif_) {
        text += member.stringValue();
        text += ", ";
    }
    text += "}";
    return text;
}

void NatMrouteOifSet::traceEncode(State::TraceWriter& writer) const {
    const auto count = static_cast<std::uint32_t>(size());
    writer.raw(count);
    std::size_t kept = 0;
    for (const L3::IntfId member : oif_) {
        if (kept++ == State::traceSetMembers)
            break;
        writer.raw(static_cast<std::uint32_t>(member.number()));
    }
}

void NatMrouteOifSet::traceDecode(State::TraceReader& reader, std::string& out) {
    std::uint32_t count = 0;
    reader.raw(count);
    NatMrouteOifSet set;
    const std::size_t kept = std::min<std::size_t>(count, State::traceSetMembers);
    for (std::size_t i = 0; i < kept && !reader.failed(); ++i) {
        std::uint32_t number = 0;
        reader.raw(number);
        if (number <= L3::IntfId::lastNumber())
            set.oifIs(L3::IntfId::fromNumber(number));
    }
    out += set.stringValue();
    if (kept < count)
        out += " (" + std::to_string(kept) + " of " + std::to_string(count) + ")";
}

STATE_VALUE_TYPE(NatRequestType);
STATE_VALUE_TYPE(NatMrouteKey);
STATE_VALUE_TYPE(NatMrouteOifSet);

} // namespace KestrelNat
