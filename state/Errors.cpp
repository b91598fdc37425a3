#include "state/Errors.h"

namespace State {

namespace {

std::string join(std::initializer_list<std::string_view> pieces) {
    std::string text;
    for (const std::string_view piece : pieces)
        text += piece;
    return text;
}

std::string argumentsText(std::string_view typeName, std::span<const std::string> given, std::size_t taken) {
    std::string text =
        join({typeName, " takes ", std::to_string(taken), taken == 1 ? " argument" : " arguments", ", not ",
              std::to_string(given.size())});
    std::string_view separator = ": ";
    for (const std::string& argument : given) {
        text += join({separator, "\"", argument, "\""});
        separator = ", ";
    }
    return text;
}

} // namespace

ParseError::ParseError(std::string_view typeName, std::string_view attribute, std::string_view cause)
    : Error(join({typeName, ", attribute ", attribute, ": ", cause}))
    , attribute_(attribute) {}

NullArgumentError::NullArgumentError(std::string_view typeName, std::string_view attribute)
    : Error(join({"null argument to mutator: ", typeName, "::", attribute})) {}

CreationError::CreationError(std::string_view typeName, std::span<const std::string> given, std::size_t taken)
    : Error(argumentsText(typeName, given, taken)) {}

UnknownTypeError::UnknownTypeError(std::string_view typeName)
    : Error(join({"no type \"", typeName, "\" is registered"})) {}

std::string lengthErrorText(std::string_view typeName, std::size_t limit, std::string_view value) {
    return join({typeName, "::length > ", std::to_string(limit), " not allowed, not ",
                 std::to_string(value.size()), ": \"", value, "\""});
}

std::string unsafeAccessText(std::string_view typeName, std::string_view path, std::string_view why) {
    return join({"unsafe access to ", typeName, " at \"", path, "\": ", why});
}

} // namespace State
