// The mroute service's rules, told a second time and naively: every look for a route walks whole tables. It
// replays what the service does on each event and never works an answer out from scratch, since an answer may
// be stale by the rules and must then be just as stale here. NaiveModel.h owns it and calls it while the
// plug-in is loaded.
#pragma once

#include "tests/model/World.h"

#include <cstdint>
#include <string>

namespace Model {

class NaiveMroute {
  public:
    /// Reads the stores and the route map in `world`, writes its own parts of what is seen; `world` outlives it.
    explicit NaiveMroute(World& world);

    void start();
    void stop();

    void requestChanged(const RequestKey& request);
    /// The route map has gained the table, or has another one under the key.
    void tableEntered(const TableKey& table);
    /// The route map has lost the table.
    void tableLeft(const TableKey& table);
    /// A row of the table was added, changed or removed; in a FIB, a route object was added, replaced or
    /// removed.
    void rowChanged(const TableName& name, const RouteKey& route);
    void oifRowChanged(const TableName& name, std::uint16_t index);
    void versionChanged(const TableName& name, const RouteKey& route);

  private:
    void handleAllRequests();
    void handleRequest(const RequestKey& request);
    void answerRequest(const RequestKey& request, RouteType type, bool added);
    void updateResponse(const Names& egress, const RequestKey& request, const std::string& type,
                        bool removeEmpty);

    void tableReplaced(const TableKey& table);
    void handleWholeTable(const TableKey& table);
    void handleEveryRow(const TableKey& table);
    void handleEveryOif(const TableKey& table);
    void handleRoute(const RouteKey& route, const TableKey& table);
    void handleDeletion(const TableKey& table);
    void deleteAnswersOf(std::uint32_t vrfId, Answers& answers, bool isPublished);

    void watch(const RequestKey& request);
    void unwatch(const RequestKey& request);

    Names egressOf(const RequestKey& request, const TableKey& table);
    const Table& tableAt(const TableKey& table) const;
    void collectOifs(const Table& table, const Route& route, Names& egress);
    void collectEgress(const RequestKey& request, const Table& table, Names& egress);

    World& world_;
    const Source source_;
    const Stores& stores_;
    Observation& seen_;
};

} // namespace Model
