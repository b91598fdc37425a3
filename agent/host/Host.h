// The host of the plug-in: the stores with the entities that the agent itself provides, the entity managers over
// them, the source of routes, and the plug-in's life: load, create by type name, mounts, completion, end.
//
// The application owns it. The stores exist from the beginning, so that state can be put there before the plug-in
// starts. Read next: changes/Operations.h, by which everybody else reads and writes the stores.
#pragma once

#include "agent/host/RouteSource.h"
#include "agent/host/Stores.h"
#include "state/EntityManager.h"
#include "state/MounterBase.h"
#include "state/ShmEntityManager.h"

#include <memory>
#include <string>

namespace Agent {

class Host {
  public:
    /// The type name by which the plug-in's mounter is created.
    static constexpr const char* mounterType = "KestrelNat::NatMulticastMounter";
    /// The toggle that chooses the source of routes.
    static constexpr const char* sourceToggle = "KestrelNatMfibLumen";

    /// Makes the stores and what is in them before any plug-in: the entities of the database, the group status,
    /// the two Quill tables of the VRF "default". What the source of routes needs is made by load().
    Host();
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// Loads the plug-in's library, which fixes its toggle, and picks the source of routes that it chose. The
    /// library stays loaded until the process ends: trace records point to its texts.
    /// @throws std::runtime_error with the loader's text, or when it is no such plug-in.
    void load(const std::string& file);
    /// Creates the mounter by its type name, has it declare its mounts, performs them and completes them.
    /// @throws whatever the plug-in raises; it is not started then.
    void start();
    /// Ends the plug-in's work by dropping the mounter. Not started is no error.
    void stop();
    bool isStarted() const { return static_cast<bool>(mounter_); }

    const Stores& stores() const { return stores_; }
    /// The source in force; known once the plug-in is loaded.
    RouteSource& routes() const { return *routes_; }

  private:
    Stores stores_;
    State::Handle<State::EntityManager> stateEm_;
    State::Handle<State::ShmEntityManager> shmemEm_;
    State::Handle<KestrelLib::MounterBase> mounter_;
    std::unique_ptr<RouteSource> routes_;
};

} // namespace Agent
