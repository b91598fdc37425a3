#include "state/TypeRegistry.h"

#include <algorithm>

namespace State {

namespace {

struct Registered {
    std::string typeName;
    std::size_t arity;
    Factory factory;
};

std::vector<Registered>& registry() {
    static std::vector<Registered> types;
    return types;
}

auto findType(std::string_view typeName) {
    return std::find_if(registry().begin(), registry().end(),
                        [&](const Registered& type) { return type.typeName == typeName; });
}

} // namespace

void registerFactory(std::string_view typeName, std::size_t arity, Factory factory) {
    const auto found = findType(typeName);
    if (found != registry().end())
        *found = Registered{std::string(typeName), arity, std::move(factory)};
    else
        registry().push_back(Registered{std::string(typeName), arity, std::move(factory)});
}

Handle<RefCounted> createByTypeName(std::string_view typeName, std::span<const Argument> arguments) {
    const auto found = findType(typeName);
    if (found == registry().end())
        throw UnknownTypeError(typeName);
    if (arguments.size() != found->arity) {
        std::vector<std::string> given;
        for (const Argument& argument : arguments) {
            const auto* text = std::get_if<std::string>(&argument);
            given.push_back(text == nullptr ? "an object" : *text);
        }
        throw CreationError(typeName, given, found->arity);
    }
    return found->factory(arguments);
}

std::vector<std::string> creatableTypes() {
    std::vector<std::string> names;
    for (const Registered& type : registry())
        names.push_back(type.typeName);
    return names;
}

} // namespace State
