// The two values that name a VRF: VrfName.h, VrfId.h.
#include "records/VrfId.h"
#include "records/VrfName.h"
#include "state/Errors.h"
#include "state/ValueType.h"

#include <algorithm>
#include <limits>

namespace L3 {

VrfName::VrfName(std::string_view name)
    : name_(name) {
    if (name.size() > maxLength)
        throw State::RangeError(State::lengthErrorText(typeName, maxLength, name));
}

std::string VrfName::whyUnusable(std::string_view name) {
    if (name.empty())
        return "is empty";
    if (name.size() > maxLength)
        return "has " + std::to_string(name.size()) + " bytes, more than " + std::to_string(maxLength);
    if (name.find('/') != std::string_view::npos)
        return "contains \"/\"";
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
    return std::ranges::any_of(name, isControl) ? "contains a control byte" : "";
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
