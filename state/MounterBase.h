// Base class of a plug-in's mounter: the one object that an agent makes from a plug-in, by its type name. The
// agent gives it its context, calls doInit, performs the mounts that were declared there, and calls
// doMountsComplete.
#pragma once

#include "state/EntityManager.h"
#include "state/ShmEntityManager.h"

#include <string>
#include <string_view>

namespace KestrelLib {

class MounterBase : public State::RefCounted {
  public:
    ~MounterBase() override {
        if (stateEm_)
            stateEm_->mountGroupDel(*this);
    }
    const std::string& name() const { return name_; }

    /// The agent's two entity managers; set by the agent before doInit.
    void contextIs(State::Handle<State::EntityManager> stateEm,
                   State::Handle<State::ShmEntityManager> shmemEm) {
        stateEm_ = std::move(stateEm);
        shmemEm_ = std::move(shmemEm);
    }

    /// Declares the mounts. Called once.
    virtual void doInit() = 0;
    /// The declared mounts are done, well or not. Called once. Exceptions are the agent's to report.
    virtual void doMountsComplete(const State::MountStatus& status,
                                  const State::Handle<State::EntityManager>& em) = 0;

  protected:
    explicit MounterBase(std::string_view name)
        : name_(name) {}

    const State::Handle<State::EntityManager>& stateEm() const { return stateEm_; }
    const State::Handle<State::ShmEntityManager>& shmemEm() const { return shmemEm_; }

  private:
    std::string name_;
    State::Handle<State::EntityManager> stateEm_;
    State::Handle<State::ShmEntityManager> shmemEm_;
};

} // namespace KestrelLib
