// The plug-in itself as a system under test: its mounter over stores of its own, as an agent would run it.
// Names and plain keys are turned into the product's types here and back for comparison.
#pragma once

#include "KestrelNat/KestrelNatMulticastMounter/NatMulticastMounter.h"
#include "tests/model/SystemUnderTest.h"

#include <set>
#include <string>

namespace Model {

/// The source of routes of this process, fixed by the toggle when the program was loaded.
Source productSource();

class ProductUnderTest final : public SystemUnderTest {
  public:
    ProductUnderTest();
    ~ProductUnderTest() override { stop(); }

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
    const Observation& observe() override;

  private:
    template <class T>
    State::Handle<T> inDatabase(const char* path) const {
        return State::handleCast<T>(database_->entity(path));
    }
    State::Handle<Quill::Multicast::Fib::Status> quillTable(const TableName& table) const;
    State::Handle<Lumen::Multicast::Fib::StatusByVrf> lumenFibs(RouteType type) const;
    State::Handle<Lumen::Multicast::Fib::Status> lumenFib(const TableName& table) const;
    TableName nameOf(const void* table) const;
    void observePublished();
    void observePrivate();

    State::Handle<State::Store> database_;
    State::Handle<State::Store> tables_;
    State::Handle<State::Store> entities_;
    State::Handle<State::ShmEntityManager> shmem_;
    State::Handle<KestrelNat::NatMulticastMounter> mounter_;
    std::set<std::string> vrfs_{"default"}; // that were ever named
    Observation seen_;
};

} // namespace Model
