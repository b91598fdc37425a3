// The plug-in itself under the operations of the model test: its mounter over stores of its own, as an agent
// would run it. Names and plain keys are turned into the product's types here and back for comparison.
#pragma once

#include "KestrelNat/KestrelNatMulticastMounter/NatMulticastMounter.h"
#include "state/Trace.h"
#include "tests/model/Observation.h"
#include "tests/model/Operation.h"

#include <optional>
#include <set>
#include <string>

namespace Model {

/// The source of routes of this process, fixed by the toggle when the program was loaded.
Source productSource();

class ProductUnderTest {
  public:
    ProductUnderTest();
    ~ProductUnderTest();
    ProductUnderTest(const ProductUnderTest&) = delete;
    ProductUnderTest& operator=(const ProductUnderTest&) = delete;

    void apply(const Operation& operation);
    /// What can be seen now; valid until the next call.
    const Observation& observe();

  private:
    template <class T>
    State::Handle<T> inDatabase() const {
        return State::handleCast<T>(database_->entity(T::path));
    }
    void start();
    void stop();
    void vrfStatus(const VrfStatus& op);
    void table(const TableIs& op);
    void quillRoute(const QuillRoute& op);
    void lumenRoute(const LumenRoute& op);
    void request(const Request& op);
    void groupStatus(const GroupStatus& op);

    State::Handle<Quill::Multicast::Fib::Status> quillTable(const TableName& table) const;
    State::Handle<Lumen::Multicast::Fib::StatusByVrf> lumenFibs(RouteType type) const;
    State::Handle<Lumen::Multicast::Fib::Status> lumenFib(const TableName& table) const;
    TableName nameOf(const void* table) const;
    void observePublished();
    void observePrivate();

    void listen();
    void listenToPlugIn();
    void hearMrouteResponse(const State::Notification& change);
    void hearMgroupResponse(const State::Notification& change);
    void hearReady(const State::Notification& change);
    void hearRouteMap(const State::Notification& change);
    void hearGroupConfig(const State::Notification& change);
    template <auto hear>
    static void dispatch(void* self, const State::Notification& change) {
        (static_cast<ProductUnderTest*>(self)->*hear)(change);
    }
    template <class Key, class Value>
    void say(const char* attribute, const Key& key, const std::optional<Value>& value) {
        seen_.said.push_back(value ? heard(attribute, key, *value) : heard(attribute, key));
    }

    State::Handle<State::Store> database_;
    State::Handle<State::Store> tables_;
    State::Handle<State::Store> entities_;
    State::Handle<State::ShmEntityManager> shmem_;
    State::Handle<KestrelNat::NatMulticastMounter> mounter_;
    State::Handle<KestrelCommon::MrouteGroup::MrouteColl> groupConfig_; // from the first start on
    std::set<std::string> vrfs_{"default"};                             // that were ever named
    bool hasChip_ = false;
    std::uint32_t chipGroups_ = 0; // that the chip has given out
    Observation seen_;
};

} // namespace Model
