// The mgroup service's rules, told a second time and naively, with their oddities: a configuration row that
// several requests share goes with the first of them, a status row that goes takes one response only, and a
// status row's id reaches requesters of every VLAN of its flow. NaiveModel.h owns it and calls it while the
// plug-in is loaded; the chip, too, is played here.
#pragma once

#include "tests/model/World.h"

#include <cstdint>
#include <optional>

namespace Model {

class NaiveMgroup {
  public:
    /// Reads the stores in `world`, writes its own parts of what is seen; `world` outlives it.
    explicit NaiveMgroup(World& world);

    void start();
    void stop();

    void requestChanged(const RequestKey& request);
    /// The hardware has, or no longer has, a group for the flow.
    void statusIs(const GroupKey& group, const std::optional<std::uint32_t>& groupId);

  private:
    void handleGroupId(const GroupKey& group);
    void configIs(const GroupKey& group);
    void configDel(const GroupKey& group);

    World& world_;
    Stores& stores_;
    Observation& seen_;
};

} // namespace Model
