// The three stores of the agent: the state database and both shared-memory stores. The host makes them and what is
// in them before the plug-in starts (Host.h); copies share the stores.
#pragma once

#include "state/Store.h"

namespace Agent {

struct Stores {
    State::Handle<State::Store> database;
    State::Handle<State::Store> tables;   // shared-memory tables
    State::Handle<State::Store> entities; // shared-memory entities

    /// The entity of type T at its own path in the database, or null.
    template <class T>
    State::Handle<T> inDatabase() const {
        return State::handleCast<T>(database->entity(T::path));
    }
};

} // namespace Agent
