// The VRF directory as stories: VRFs come, wait, are identified, go; what the route map and the mounts show.
// Runs with either source of routes; what differs asks the toggle.
#include "KestrelNat/KestrelNatMulticastMounter/NatVrfDirSm.h"
#include "KestrelNat/KestrelNatMulticastMounter/RoutePaths.h"
#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"
#include "state/Errors.h"
#include "state/Trace.h"
#include "state/TypeRegistry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using namespace KestrelNat;
using State::Handle;
using State::makeHandle;

const bool lumen = toggleKestrelNatMfibLumenEnabled();
const std::string lumenUser = "lumen/multicast/fib/ipv4/user";
const std::string lumenSparse = "lumen/multicast/fib/ipv4/sparsemode";

// Counts what the route map announces: "+vrf red", "-table 3/static".
class RouteMapListener {
  public:
    explicit RouteMapListener(Handle<NatMrouteRouteMap> map)
        : map_(std::move(map)) {
        map_->publisher().subscribe(this, &hear);
    }
    ~RouteMapListener() { map_->publisher().unsubscribe(this, &hear); }
    std::vector<std::string> heard;

  private:
    static void hear(void* self, const State::Notification& change) {
        auto& listener = *static_cast<RouteMapListener*>(self);
        const NatMrouteRouteMap& map = *listener.map_;
        if (change.attribute == NatMrouteRouteMap::vrfNameToIdAttribute) {
            const auto& name = change.keyAs<L3::VrfName>();
            listener.heard.push_back((map.vrfNameToIdHas(name) ? "+vrf " : "-vrf ") + name.stringValue());
            return;
        }
        const auto& key = change.keyAs<NatMcastRouteKey>();
        const bool present =
            change.attribute == NatMrouteRouteMap::mfibAttribute ? map.mfibHas(key) : map.mrouteRouteHas(key);
        listener.heard.push_back((present ? "+table " : "-table ") + std::to_string(key.vrfId.value()) + "/" +
                                 key.routeName);
    }
    Handle<NatMrouteRouteMap> map_;
};

// Notes what is mounted, and how.
class RecordingManager final : public State::ShmEntityManager {
  public:
    using State::ShmEntityManager::ShmEntityManager;

    void doMount(std::string_view path, std::string_view type, const State::TableMount& mount) override {
        mounts.push_back(std::string(path) + ": mode " + std::to_string(mount.mode));
        State::ShmEntityManager::doMount(path, type, mount);
    }
    void doMount(std::string_view path, std::string_view type, const State::EntityMount& mount) override {
        mounts.push_back(std::string(path) + ": " + (mount.writer ? "writer" : "reader") +
                         (mount.recursive ? ", recursive" : "") + (mount.notify ? ", notify" : ""));
        State::ShmEntityManager::doMount(path, type, mount);
    }

    std::vector<std::string> mounts;
};

class VrfDir : public ::testing::Test {
  protected:
    Handle<State::Store> tables = makeHandle<State::Store>("the table store");
    Handle<State::Store> entities = makeHandle<State::Store>("the entity store");
    Handle<RecordingManager> shmem = makeHandle<RecordingManager>(tables, entities);
    Handle<Routing::Hardware::RouteStatus> routeStatus = makeHandle<Routing::Hardware::RouteStatus>();
    Handle<Routing::Multicast::Fib::VrfEnabledStatus> enabled =
        makeHandle<Routing::Multicast::Fib::VrfEnabledStatus>();
    Handle<NatMrouteRouteMap> map = makeHandle<NatMrouteRouteMap>();
    RouteMapListener listener{map};
    Handle<NatVrfDirSm> dir;
    std::uint64_t mark = State::traceNext();

    VrfDir() {
        if (lumen) {
            entities->entityIs(lumenUser, "Lumen::Multicast::Fib::StatusByVrf");
            entities->entityIs(lumenSparse, "Lumen::Multicast::Fib::StatusByVrf");
        }
    }
    void start() { dir = NatVrfDirSm::NatVrfDirSmIs(shmem, routeStatus, enabled, map); }
    Handle<Routing::Hardware::VrfStatus> vrfStatusIs(const std::string& name, std::uint32_t id) {
        auto status = makeHandle<Routing::Hardware::VrfStatus>(L3::VrfName(name));
        status->vrfIdIs(id);
        routeStatus->vrfStatusIs(L3::VrfName(name), status);
        return status;
    }
    // Makes the VRF's tables, or its FIBs, in the stores.
    void tablesIs(const std::string& name) {
        for (const char* mode : {STATIC_MODE, SPARSE_MODE})
            if (!lumen)
                tables->entityIs(formatMulticastRoutePath(name, mode), "Quill::Multicast::Fib::Status");
        for (const std::string& path :
             lumen ? std::vector{lumenUser, lumenSparse} : std::vector<std::string>()) {
            const auto byVrf = State::handleCast<Lumen::Multicast::Fib::StatusByVrf>(entities->entity(path));
            byVrf->statusIs(Lumen::Multicast::Fib::MfibVrfName(L3::VrfName(name)),
                            makeHandle<Lumen::Multicast::Fib::Status>(byVrf->name()));
        }
    }
    bool hasBothTables(std::uint32_t id) const {
        return std::all_of(routeTypes().begin(), routeTypes().end(), [&](const std::string& type) {
            const NatMcastRouteKey key{.vrfId = id, .routeName = type};
            return lumen ? map->mfibHas(key) : map->mrouteRouteHas(key);
        });
    }
    std::string table(std::uint32_t id, std::size_t type) const {
        return "table " + std::to_string(id) + "/" + routeTypes()[type];
    }
    // Messages of the facility since the mark, and the mark set anew.
    std::vector<std::string> traced() {
        std::vector<std::string> messages;
        for (const auto& record : State::traceRecordsSince(mark))
            if (record.facility == "KestrelNatMulticastMounter")
                messages.push_back(std::to_string(record.level) + " " + record.message);
        mark = State::traceNext();
        return messages;
    }
};

using Lines = std::vector<std::string>;

TEST_F(VrfDir, EntersWhatIsReadyAtStartInOrderAndMountsItsTables) {
    for (const auto& [name, id] : {std::pair{"default", 0U}, {"red", 3U}, {"blue", 0U}}) {
        tablesIs(name);
        vrfStatusIs(name, id);
    }
    for (const char* name : {"default", "blue", "red"})
        enabled->vrfEnabledIs(name, true);
    start();
    EXPECT_EQ(listener.heard, (Lines{"+vrf default", "+" + table(0, 0), "+" + table(0, 1), "+vrf red",
                                     "+" + table(3, 0), "+" + table(3, 1)}));
    EXPECT_EQ(
        traced(),
        (Lines{"6 NatVrfDirSm::handleInitialized", "8 NatVrfDirSm::handleVrf vrfName=default",
               "8 NatVrfDirSm::handleVrf adding vrfName=default", "8 NatVrfDirSm::handleVrf vrfName=blue",
               "8 NatVrfDirSm::handleVrf will wait for vrfId to be updated for vrfName=blue",
               "8 NatVrfDirSm::handleVrf vrfName=red", "8 NatVrfDirSm::handleVrf adding vrfName=red"}));
    EXPECT_EQ(shmem->mounts.front(), lumen ? lumenUser + ": reader, recursive, notify"
                                           : "routing/multicast/routestatus/default/static: mode 3");
}

TEST_F(VrfDir, RemovesByTheFlagAloneAndSilentlyWhatWasNeverAdded) {
    start();
    tablesIs("red");
    vrfStatusIs("red", 3);
    enabled->vrfEnabledIs("red", true);
    routeStatus->vrfStatusDel("red");
    EXPECT_TRUE(map->vrfNameToIdHas("red")) << "a vanished entry leaves the VRF added";
    EXPECT_FALSE(dir->vrfStatusHas("red"));
    listener.heard.clear();
    traced();
    enabled->vrfEnabledIs("red", false);
    EXPECT_EQ(listener.heard, (Lines{"-vrf red", "-" + table(3, 0), "-" + table(3, 1)}));
    EXPECT_EQ(traced(), (Lines{"8 NatVrfDirSm::handleVrf vrfName=red",
                               "8 NatVrfDirSm::handleVrf removing vrfName=red"}));
    enabled->vrfEnabledDel("red");
    enabled->vrfEnabledIs("green", false);
    EXPECT_EQ(traced(),
              (Lines{"8 NatVrfDirSm::handleVrf vrfName=red", "8 NatVrfDirSm::handleVrf vrfName=green"}));
    EXPECT_EQ(listener.heard.size(), 3U);
}

TEST_F(VrfDir, TheRouteMapUsesTheFibItHolds) {
    if (!lumen)
        GTEST_SKIP() << "only FIBs of the entity store count uses";
    tablesIs("red");
    vrfStatusIs("red", 3);
    enabled->vrfEnabledIs("red", true);
    start();
    const auto byVrf = State::handleCast<Lumen::Multicast::Fib::StatusByVrf>(entities->entity(lumenUser));
    const Lumen::Multicast::Fib::MfibVrfName red{L3::VrfName("red")};
    const auto uses = [&] { return (*byVrf->statusCollection().find(red))->useCount(); };
    EXPECT_EQ(uses(), 2U) << "the store's and the route map's";
    enabled->vrfEnabledIs("red", false);
    EXPECT_EQ(uses(), 1U);
}

TEST_F(VrfDir, AMissingLumenFibIsTracedAndTheVrfEntered) {
    if (!lumen)
        GTEST_SKIP() << "Quill tables are asserted, not looked for";
    vrfStatusIs("red", 3);
    enabled->vrfEnabledIs("red", true);
    start();
    EXPECT_EQ(listener.heard, Lines{"+vrf red"});
    const auto lines = traced();
    for (const char* mode : {"static mode", "sparsemode"}) {
        const std::string line = std::string("8 Lumen mfib not found for ") + mode + ", vrfName=red";
        EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 1) << line;
    }
}

TEST_F(VrfDir, SwitchedOffItHearsNothingAndItsEndLeavesTheMap) {
    start();
    tablesIs("red");
    const auto status = vrfStatusIs("red", 0);
    EXPECT_THROW(dir->vrfStatusIs(nullptr), State::NullArgumentError);
    enabled->vrfEnabledIs("red", true);
    dir->hasNotificationActiveIs(false);
    status->vrfIdIs(3);
    dir->hasNotificationActiveIs(true);
    EXPECT_TRUE(listener.heard.empty()) << "nothing is replayed";
    enabled->vrfEnabledIs("red", false);
    enabled->vrfEnabledIs("red", true);
    EXPECT_TRUE(hasBothTables(3));

    const auto nested = dir->vrfStatus("red");
    dir.reset();
    EXPECT_TRUE(hasBothTables(3));
    EXPECT_TRUE(nested->retired());
    EXPECT_FALSE(nested->owner());
    EXPECT_FALSE(routeStatus->hasSubscribers() || enabled->hasSubscribers());
    status->vrfIdIs(4);
    EXPECT_EQ(map->vrfNameToId("red"), L3::VrfId(3));
}

TEST_F(VrfDir, EveryInputMayBeNull) {
    EXPECT_NO_THROW(NatVrfDirSm::NatVrfDirSmIs(nullptr, nullptr, nullptr, nullptr));
    tablesIs("red");
    vrfStatusIs("red", 3);
    enabled->vrfEnabledIs("red", true);
    NatVrfDirSm::NatVrfDirSmIs(shmem, nullptr, enabled, map);
    NatVrfDirSm::NatVrfDirSmIs(shmem, routeStatus, nullptr, map);
    NatVrfDirSm::NatVrfDirSmIs(shmem, routeStatus, enabled, nullptr);
    EXPECT_TRUE(listener.heard.empty());
}

TEST_F(VrfDir, AnIdentifierTooLargeAbandonsConstructionCleanly) {
    tablesIs("red");
    vrfStatusIs("red", 0x01000000);
    enabled->vrfEnabledIs("red", true);
    const std::vector<State::Argument> inputs{shmem, routeStatus, enabled, map};
    try {
        State::createByTypeName("KestrelNat::NatVrfDirSm", inputs);
        FAIL() << "the identifier does not fit";
    } catch (const State::RangeError& error) {
        EXPECT_STREQ(error.what(), "VrfId::value > 0x00ffffff not allowed");
    }
    EXPECT_TRUE(listener.heard.empty());
    EXPECT_FALSE(routeStatus->hasSubscribers());
    EXPECT_FALSE(enabled->hasSubscribers());
}

TEST_F(VrfDir, BrokenInvariantsEndTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    tablesIs("red");
    const auto status = vrfStatusIs("red", 3);
    enabled->vrfEnabledIs("red", true);
    start();
    EXPECT_DEATH(status->vrfIdIs(4), "KestrelNat/KestrelNatMulticastMounter/.*"
                                     "void KestrelNat::NatVrfDirSm::handleVrf\\(const L3::VrfName&\\).*"
                                     "!mrouteRouteMap\\(\\)->vrfNameToIdHas\\( vrfName \\) && "
                                     "\"vrfId should not change here\"");
    vrfStatusIs("blue", 5);
    const std::string path = lumen ? lumenSparse : formatMulticastRoutePath("blue", STATIC_MODE);
    (lumen ? entities : tables)->entityDel(path);
    EXPECT_DEATH(enabled->vrfEnabledIs("blue", true),
                 lumen ? "handleVrf.*!!statusByVrfSparse && \"statusByVrfSparse not mounted\""
                       : "handleVrf.*!!mcastRouteStatic && \"mcastRouteStatic not mounted\"");
}

} // namespace
