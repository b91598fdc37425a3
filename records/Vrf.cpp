// The two values that name a VRF: VrfName.h, VrfId.h.
#include "records/VrfId.h"
#include "records/VrfName.h"
#include "state/Errors.h"
#include "state/ValueType.h"

#include <limits>

namespace L3 {

VrfName::VrfName(std::string_view name)
    : name_(name) {
    if (name.size() > maxLength)
        throw State::RangeError(State::lengthErrorText(typeName, maxLength, name));
}

VrfId VrfId::fromNumber(std::uint64_t number) {
    if (number > max)
        refuse();
    return VrfId(static_cast<std::uint32_t>(number));
}

void VrfId::refuse() {
    throw State::RangeError("VrfId::value > 0x00ffffff not allowed");
}

STATE_VALUE_TYPE(VrfName);
STATE_VALUE_TYPE(VrfId);

} // namespace L3
