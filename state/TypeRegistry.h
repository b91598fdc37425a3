// Creation by type name: how an agent makes a plug-in's mounter, and how anybody makes a state machine whose
// type they know only by name. A factory is registered, when its library is loaded, with the name of its type
// and takes exactly the arguments it was registered with.
#pragma once

#include "state/Errors.h"
#include "state/Handle.h"

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace State {

/// A constructor argument: a string (names), or a handle to an object (inputs; may be null).
using Argument = std::variant<std::string, Handle<const RefCounted>>;
using Factory = std::function<Handle<RefCounted>(std::span<const Argument>)>;

/// Registers `factory`, which takes `arity` arguments, under `typeName`. A second registration of a name
/// replaces the first.
void registerFactory(std::string_view typeName, std::size_t arity, Factory factory);

/// Makes an object of the type. Errors: UnknownTypeError; CreationError for arguments that are too many, too
/// few or of another type. Exceptions of the constructor pass through.
Handle<RefCounted> createByTypeName(std::string_view typeName, std::span<const Argument> arguments);

/// Names of all registered types, in order of registration.
std::vector<std::string> creatableTypes();

namespace Detail {

/// The argument as the parameter type P of a factory function.
template <class P>
P argumentAs(std::string_view typeName, std::size_t position, const Argument& argument) {
    if constexpr (std::is_convertible_v<std::string_view, P>) {
        if (const auto* text = std::get_if<std::string>(&argument))
            return P(std::string_view(*text));
    } else {
        using T = std::remove_reference_t<decltype(*std::declval<P>())>;
        if (const auto* object = std::get_if<Handle<const RefCounted>>(&argument)) {
            // Arguments travel as read-only handles; the factory's own signature says what it may write.
            const auto typed = handleCast<const T>(*object);
            if (typed || !*object)
                return P(const_cast<T*>(typed.get()));
        }
    }
    throw CreationError(std::string(typeName) + ": argument " + std::to_string(position + 1) +
                        " is of the wrong type");
}

template <class R, class... P, std::size_t... I>
Handle<RefCounted> callFactory([[maybe_unused]] std::string_view typeName, R (*function)(P...),
                               [[maybe_unused]] std::span<const Argument> arguments,
                               std::index_sequence<I...>) {
    return Handle<RefCounted>(function(argumentAs<std::remove_cvref_t<P>>(typeName, I, arguments[I])...));
}

} // namespace Detail

/// Registers a factory function with its parameters (strings or handles) as they are.
template <class R, class... P>
void registerFactory(std::string_view typeName, R (*function)(P...)) {
    registerFactory(typeName, sizeof...(P),
                    [name = std::string(typeName), function](std::span<const Argument> arguments) {
                        return Detail::callFactory(name, function, arguments,
                                                   std::index_sequence_for<P...>());
                    });
}

} // namespace State

// STATE_FACTORY( "Namespace::Type", function ): registers `function` when the library is loaded.
#define STATE_FACTORY(typeName, function)                                                                    \
    [[maybe_unused]] static const bool STATE_FACTORY_JOIN(factoryAtLine, __LINE__) =                         \
        (::State::registerFactory(typeName, function), true)
#define STATE_FACTORY_JOIN(a, b) STATE_FACTORY_JOINED(a, b)
#define STATE_FACTORY_JOINED(a, b) a##b
