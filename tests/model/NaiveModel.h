// The naive model of the plug-in: plain containers, whole-table walks, no line shared with the product. This
// file holds the stores, hands each event on as the plug-in's reactors would get it, and follows the VRFs;
// the services are NaiveMroute.h and NaiveMgroup.h. It throws Fatal where the plug-in would end the process,
// which the operations that Guards.h allows never reach.
#pragma once

#include "tests/model/NaiveMgroup.h"
#include "tests/model/NaiveMroute.h"
#include "tests/model/NaiveStores.h"
#include "tests/model/SystemUnderTest.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Model {

class NaiveModel : public SystemUnderTest {
  public:
    explicit NaiveModel(Source source);
    NaiveModel(const NaiveModel&) = delete;
    NaiveModel& operator=(const NaiveModel&) = delete;

    Source source() const { return source_; }
    bool started() const { return started_; }
    /// What outside writers keep, for guards and for the choice of the next operation.
    const Stores& stores() const { return stores_; }

    void start() override;
    void stop() override;

    void vrfStatusIs(const std::string& vrf, std::uint32_t vrfId) override;
    void vrfStatusReplaced(const std::string& vrf, std::uint32_t vrfId) override;
    void vrfStatusDel(const std::string& vrf) override;
    void vrfEnabledIs(const std::string& vrf, bool enabled) override;
    void vrfEnabledDel(const std::string& vrf) override;

    void tableIs(const TableName& table) override;
    void tableDel(const TableName& table) override;
    void quillRouteIs(const TableName& table, const RouteKey& key,
                      const std::vector<std::uint16_t>& oifs) override;
    void oifIndexIntfIs(const TableName& table, std::uint16_t index, const std::string& intf) override;
    void oifIndexIntfDel(const TableName& table, std::uint16_t index) override;
    void lumenRouteIs(const TableName& table, const RouteKey& key, const Names& intfs,
                      std::uint32_t ready) override;
    void lumenRouteUntold(const TableName& table, const RouteKey& key, const Names& intfs,
                          std::uint32_t ready) override;
    void lumenRouteReplaced(const TableName& table, const RouteKey& key, const Names& intfs,
                            std::uint32_t ready) override;
    void routeDel(const TableName& table, const RouteKey& key) override;

    void mrouteRequestIs(const RequestKey& key) override;
    void mrouteRequestDel(const RequestKey& key) override;
    void egressFromAllVrfsIs(bool all) override;

    void mgroupRequestIs(const RequestKey& key) override;
    void mgroupRequestDel(const RequestKey& key) override;
    void groupStatusIs(const GroupKey& key, std::uint32_t groupId) override;
    void groupStatusDel(const GroupKey& key) override;

    const Observation& observe() override { return seen_; }

  private:
    void handleVrf(const std::string& vrf);
    void addVrf(const std::string& vrf, std::uint32_t vrfId);
    void removeVrf(const std::string& vrf);
    std::string mountPath(const TableName& table) const;

    const Source source_;
    bool started_ = false;
    bool mrouteStarted_ = false; // the VRFs are entered before the mroute service is there
    Stores stores_;
    Observation seen_;
    NaiveMroute mroute_;
    NaiveMgroup mgroup_;
};

} // namespace Model
