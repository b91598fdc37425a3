#include "state/ValueType.h"

#include <algorithm>

namespace State {

namespace {

std::vector<const ValueType*>& registeredTypes() {
    static std::vector<const ValueType*> types;
    return types;
}

} // namespace

void registerValueType(const ValueType& type) {
    if (findValueType(type.name) == nullptr)
        registeredTypes().push_back(&type);
}

const std::vector<const ValueType*>& valueTypes() {
    return registeredTypes();
}

const ValueType* findValueType(std::string_view name) {
    const auto& types = registeredTypes();
    const auto found =
        std::find_if(types.begin(), types.end(), [&](const ValueType* type) { return type->name == name; });
    return found == types.end() ? nullptr : *found;
}

} // namespace State
