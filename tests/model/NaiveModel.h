// The naive model of the plug-in: plain containers, whole-table walks, no line shared with the product. This
// file takes the operations, hands each on as the plug-in's reactors would get it, and follows the VRFs; the
// services are NaiveMroute.h and NaiveMgroup.h.
#pragma once

#include "tests/model/NaiveMgroup.h"
#include "tests/model/NaiveMroute.h"
#include "tests/model/Operation.h"
#include "tests/model/World.h"

#include <cstdint>
#include <string>

namespace Model {

enum class Outcome { done, idle, fatal };

class NaiveModel {
  public:
    /// In the beginning the plug-in is not loaded and the stores are empty but for the two Quill tables of the VRF
    /// "default", which an agent makes itself.
    explicit NaiveModel(Source source);
    NaiveModel(const NaiveModel&) = delete;
    NaiveModel& operator=(const NaiveModel&) = delete;

    /// Carries the operation out; where it finds nothing to work on or ends the process, nothing is changed.
    Outcome apply(const Operation& operation);

    /// For the choice of the next operation.
    const World& world() const { return world_; }
    const Observation& observe() const { return world_.seen; }

  private:
    void carryOut(const Operation& operation);
    void start();
    void stop();
    void vrfStatus(const VrfStatus& op);
    void vrfEnabled(const VrfEnabled& op);
    void table(const TableIs& op);
    void lumenRoute(const LumenRoute& op);
    Table& tableOf(Source source, const TableName& name);

    void handleVrf(const std::string& vrf);
    void addVrf(const std::string& vrf, std::uint32_t vrfId);
    void removeVrf(const std::string& vrf);

    World world_;
    Stores& stores_ = world_.stores;
    Observation& seen_ = world_.seen;
    NaiveMroute mroute_{world_};
    NaiveMgroup mgroup_{world_};
};

} // namespace Model
