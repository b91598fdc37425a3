// The host of the plug-in: the state database and both shared-memory stores with the entities that the agent
// itself provides, the entity managers over them, and the plug-in's life: load, create by type name, mounts,
// completion, end.
//
// The application owns it. The stores exist from the beginning, so that state can be put there before the
// plug-in starts. Operations.h is how everybody else reads and writes the stores.
#pragma once

#include "state/EntityManager.h"
#include "state/MounterBase.h"
#include "state/ShmEntityManager.h"
#include "state/Store.h"

#include <string>

namespace Agent {

class Host {
  public:
    /// The type name by which the plug-in's mounter is created.
    static constexpr const char* mounterType = "KestrelNat::NatMulticastMounter";
    /// The toggle that chooses the source of routes.
    static constexpr const char* lumenToggle = "KestrelNatMfibLumen";

    /// Makes the stores and the entities that are there before any plug-in: the five api/ entities, the three
    /// that the plug-in mounts, the group status, the two tables of the VRF "default". The entities that
    /// depend on the FIB source are made by load().
    Host();
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// Loads the plug-in's library, which fixes its toggle, and makes the entities of the FIB source that it
    /// chose. The library stays loaded until the process ends: trace records point to its texts.
    /// @throws std::runtime_error with the loader's text, or when it is no such plug-in.
    void load(const std::string& file);
    /// Creates the mounter by its type name, has it declare its mounts, performs them and completes them.
    /// @throws whatever the plug-in raises; it is not started then.
    void start();
    /// Ends the plug-in's work by dropping the mounter. Not started is no error.
    void stop();
    bool isStarted() const { return static_cast<bool>(mounter_); }
    /// Whether the Lumen FIB is the source of routes; known once the plug-in is loaded.
    bool isLumen() const { return isLumen_; }

    const State::Handle<State::Store>& database() const { return database_; }
    const State::Handle<State::Store>& tableStore() const { return tableStore_; }
    const State::Handle<State::Store>& entityStore() const { return entityStore_; }
    const State::Handle<State::ShmEntityManager>& shmemEm() const { return shmemEm_; }
    /// How the mounts went.
    const State::MountStatus& mountStatus() const { return mountStatus_; }

    /// The entity of type T at the path in the database, which the constructor made.
    template <class T>
    State::Handle<T> inDatabase(const char* path) const {
        return State::handleCast<T>(database_->entity(path));
    }

  private:
    State::Handle<State::Store> database_;
    State::Handle<State::Store> tableStore_;
    State::Handle<State::Store> entityStore_;
    State::Handle<State::EntityManager> stateEm_;
    State::Handle<State::ShmEntityManager> shmemEm_;
    State::Handle<KestrelLib::MounterBase> mounter_;
    State::MountStatus mountStatus_;
    bool isLumen_ = true;
};

} // namespace Agent
