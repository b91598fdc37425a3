// The mgroup service's rules, told a second time and naively, with their oddities: a configuration row that
// several requests share goes with the first of them, a status row that goes takes one response only, and a
// status row's id reaches requesters of every VLAN of its flow. NaiveModel.h owns it and calls it while the
// plug-in is loaded.
#pragma once

#include "tests/model/NaiveStores.h"
#include "tests/model/SystemUnderTest.h"

namespace Model {

class NaiveMgroup {
  public:
    /// Reads the stores, writes its own parts of `seen`; both outlive it.
    NaiveMgroup(const Stores& stores, Observation& seen);

    void start();
    void stop();

    void requestChanged(const RequestKey& request);
    void statusChanged(const GroupKey& group);

  private:
    const Stores& stores_;
    Observation& seen_;
};

} // namespace Model
