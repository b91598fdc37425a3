// The plug-in towards its agent: what the mounter declares and builds, and how the VRF directory keeps mounts
// and route map in step. Runs with either source of routes.
#include "KestrelNat/KestrelNatMulticastMounter/NatMulticastMounter.h"
#include "KestrelNat/KestrelNatMulticastMounter/RoutePaths.h"
#include "state/Errors.h"
#include "state/TypeRegistry.h"
#include "tests/nat/FailingAllocation.h"
#include "tests/nat/NatFixture.h"

namespace NatTest {

namespace {

using namespace KestrelNat;
using Lumen::Multicast::Fib::MfibVrfName;
using Lumen::Multicast::Fib::StatusByVrf;
using Routing::Hardware::RouteStatus;
using Routing::Hardware::VrfStatus;
using Routing::Multicast::Fib::VrfEnabledStatus;

// Notes what is mounted and unmounted, and how.
class RecordingManager final : public State::ShmEntityManager {
  public:
    using State::ShmEntityManager::ShmEntityManager;

    void doMount(std::string_view path, std::string_view type, const State::TableMount& mount) override {
        std::string line = mountOf(path, type) + ", mode " + std::to_string(mount.mode);
        for (const auto& [name, capacity, reserve] : mount.collections)
            line += ", " + name + " " + std::to_string(capacity) + " " + std::to_string(reserve);
        heard.push_back(line);
        State::ShmEntityManager::doMount(path, type, mount);
    }
    void doMount(std::string_view path, std::string_view type, const State::EntityMount& mount) override {
        heard.push_back(mountOf(path, type) + (mount.writer ? ", writer" : ", reader") +
                        (mount.recursive ? ", recursive" : "") + (mount.notify ? ", notify" : ""));
        State::ShmEntityManager::doMount(path, type, mount);
    }
    void doUnmount(std::string_view path) override {
        heard.push_back("unmount " + std::string(path));
        State::ShmEntityManager::doUnmount(path);
    }

    Lines heard;

  private:
    static std::string mountOf(std::string_view path, std::string_view type) {
        return std::string("mount ").append(path).append(": ").append(type);
    }
};

class Mounter : public testing::Test {
  protected:
    Mounter() {
        for (const Type type : {plain, sparse})
            if (lumen)
                entities->entityIs(path("", type), StatusByVrf::type().name());
    }
    template <class T>
    Handle<T> inDatabase() {
        return State::handleCast<T>(database->entityIs(T::path, T::type().name()));
    }
    void start() { dir = NatVrfDirSm::NatVrfDirSmIs(shmem, routeStatus, enabled, map); }

    // An entry of the route status, in place of the one that is there.
    Handle<VrfStatus> vrfStatusIs(const std::string& vrf, std::uint32_t id) {
        auto status = makeHandle<VrfStatus>(L3::VrfName(vrf));
        status->vrfIdIs(id);
        routeStatus->vrfStatusIs(L3::VrfName(vrf), status);
        return status;
    }
    // An enabled VRF with its tables, or its FIBs.
    Handle<VrfStatus> vrfIs(const std::string& vrf, std::uint32_t id) {
        for (const Type type : {plain, sparse})
            if (lumen)
                fibs(type)->statusIs(MfibVrfName(L3::VrfName(vrf)), makeHandle<LumenFib>(routeTypes()[type]));
            else
                tables->entityIs(path(vrf, type), QuillTable::type().name());
        auto status = vrfStatusIs(vrf, id);
        enabled->vrfEnabledIs(vrf, true);
        return status;
    }
    Handle<StatusByVrf> fibs(Type type) const {
        return State::handleCast<StatusByVrf>(entities->entity(path("", type)));
    }
    // Where the source of this process has its tables; that of FIBs is one for all VRFs.
    static std::string path(const std::string& vrf, Type type) {
        return lumen ? "lumen/multicast/fib/ipv4/" + routeTypes()[type]
                     : "routing/multicast/routestatus/" + vrf + "/" + routeTypes()[type];
    }
    static std::string mount(const std::string& vrf, Type type) {
        return "mount " + path(vrf, type) + ": " +
               (lumen ? "Lumen::Multicast::Fib::StatusByVrf, reader, recursive, notify"
                      : "Quill::Multicast::Fib::Status, mode 3");
    }
    // What a route map holds, as the log has it after each of its changes.
    static std::string content(const NatMrouteRouteMap& map) {
        const auto tables = map.mrouteRouteCollection().size() + map.mfibCollection().size();
        return std::to_string(map.vrfNameToIdCollection().size()) + " VRFs, " + std::to_string(tables) +
               " tables";
    }

    Handle<State::Store> database = makeHandle<State::Store>("the state database");
    Handle<State::Store> tables = makeHandle<State::Store>("the table store");
    Handle<State::Store> entities = makeHandle<State::Store>("the entity store");
    Handle<RecordingManager> shmem = makeHandle<RecordingManager>(tables, entities);
    Handle<RouteStatus> routeStatus = inDatabase<RouteStatus>();
    Handle<VrfEnabledStatus> enabled = inDatabase<VrfEnabledStatus>();
    Handle<NatMrouteRouteMap> map = makeHandle<NatMrouteRouteMap>();
    Handle<NatVrfDirSm> dir;
    Lines& heard = shmem->heard;
    Traced traced{"KestrelNatMulticastMounter"};
};

const std::string handling = "8 NatVrfDirSm::handleVrf vrfName=red";
const std::string waiting = "8 NatVrfDirSm::handleVrf will wait for vrfId to be updated for vrfName=red";
const std::string adding = "8 NatVrfDirSm::handleVrf adding vrfName=red";

TEST_F(Mounter, DeclaresItsMountsAndBuildsFromTheDirectoryToTheGroups) {
    const std::string typeName = "KestrelNat::NatMulticastMounter";
    const std::vector<State::Argument> arguments{std::string("nat"), std::string("more")};
    for (const std::size_t wrong : {0U, 2U})
        EXPECT_THROW(State::createByTypeName(typeName, std::span(arguments).first(wrong)),
                     State::CreationError);
    const auto mounter = State::handleCast<NatMulticastMounter>(
        State::createByTypeName(typeName, std::span(arguments).first(1)));
    EXPECT_EQ(mounter->name(), "nat");

    const auto em = makeHandle<State::EntityManager>(database);
    mounter->contextIs(em, shmem);
    mounter->doInit();
    const State::MountGroup& group = em->getMountGroup(*mounter);
    Lines declared;
    for (const auto& [path, type, flags] : group.mounts()) {
        const bool isReadOnly = flags == State::MountFlags::readOnly;
        declared.emplace_back(path).append(": ").append(type).append(isReadOnly ? ", r" : "");
    }
    EXPECT_EQ(declared,
              (Lines{"hardware/kestrel/nat/capability/config: KestrelNat::CapabilityConfig, r",
                     "routing/hardware/route/status: Routing::Hardware::RouteStatus, r",
                     "routing/multicast/fibenabled/status: Routing::Multicast::Fib::VrfEnabledStatus, r"}));
    EXPECT_TRUE(group.closed() && !group.wait() && group.text().empty() && group.duration().count() == 0);
    EXPECT_EQ(
        heard,
        (Lines{
            "mount routing/multicast/routestatus/default/static: Quill::Multicast::Fib::Status, mode 3",
            "mount routing/multicast/routestatus/default/sparsemode: Quill::Multicast::Fib::Status, mode 3",
            "mount l3/mroutegroup/config: KestrelCommon::MrouteGroup::MrouteColl, mode 0, mroutes 16000 0",
            "mount l3/mroutegroup/status: KestrelCommon::MrouteGroup::MgroupColl, mode 1"}));

    vrfIs("red", 3);
    heard.clear();
    const auto built = [&] {
        return std::string(mounter->natVrfDirSm() ? "directory " : "") +
               (mounter->mrouteSm() ? "mroute " : "") + (mounter->mgroupSm() ? "mgroup " : "");
    };
    const auto status = inDatabase<MulticastSmStatus>();
    const OnChange onReady(*status, [&](const Notification&) {
        heard.push_back(built() + (status->mgroupSmReady() ? "and mgroup is ready" : "and mroute is ready"));
    });
    const auto first = mounter->mrouteRouteMapIs();
    const OnChange onMap(*first, [&](const Notification&) { heard.push_back(built() + content(*first)); });
    mounter->doMountsComplete(em->performMounts(*mounter), em);
    EXPECT_EQ(heard, (Lines{"1 VRFs, 0 tables", mount("red", plain), "1 VRFs, 1 tables", mount("red", sparse),
                            "1 VRFs, 2 tables", "directory and mroute is ready",
                            "directory mroute and mgroup is ready"}));
    EXPECT_EQ(built(), "directory mroute mgroup ");
    EXPECT_EQ(traced(), (Lines{"6 NatMulticastMounter::doInit", "6 NatMulticastMounter::doMountsComplete",
                               "6 NatVrfDirSm::handleInitialized", handling, adding}));
    EXPECT_EQ(mounter->mrouteRouteMapDel(), first);
    EXPECT_EQ(mounter->mrouteRouteMapDel(), nullptr);
}

TEST_F(Mounter, BuildsItsMachinesWhereNothingIsThere) {
    const auto em = makeHandle<State::EntityManager>(makeHandle<State::Store>("nothing"));
    const auto mounter = makeHandle<NatMulticastMounter>("nat");
    mounter->contextIs(em, shmem);
    mounter->doInit();
    const State::MountStatus status = em->performMounts(*mounter);
    EXPECT_EQ(status.failures.size(), 3U);
    mounter->doMountsComplete(status, em);
    EXPECT_TRUE(mounter->natVrfDirSm() && mounter->mrouteSm() && mounter->mgroupSm());
}

using VrfDir = Mounter;

TEST_F(VrfDir, EntersTheNameFirstThenMountsEachTableBeforeItIsAMember) {
    const OnChange onMap(*map, [&](const Notification&) { heard.push_back(content(*map)); });
    start();
    vrfIs("red", 3);
    EXPECT_EQ(heard, (Lines{"1 VRFs, 0 tables", mount("red", plain), "1 VRFs, 1 tables", mount("red", sparse),
                            "1 VRFs, 2 tables"}));
    const auto fib = [&] { return *fibs(plain)->statusCollection().find(MfibVrfName(L3::VrfName("red"))); };
    EXPECT_EQ(lumen ? fib()->useCount() : 3U, 3U) << "the store's, the route map's, and the one here";
    heard.clear();
    enabled->vrfEnabledIs("red", false);
    EXPECT_EQ(heard, (Lines{"0 VRFs, 2 tables", "0 VRFs, 1 tables", "unmount " + path("red", plain),
                            "0 VRFs, 0 tables", "unmount " + path("red", sparse)}));
    EXPECT_EQ(lumen ? fib()->useCount() : 2U, 2U);
}

TEST_F(VrfDir, FollowsAnEntryThatIsReplacedAndNoneThatIsGone) {
    const auto old = vrfIs("red", 0);
    start();
    traced();
    const auto entry = vrfStatusIs("red", 0);
    EXPECT_EQ(traced(), (Lines{handling, waiting, handling, waiting})) << "for the member and for its entry";
    old->vrfIdIs(7);
    EXPECT_EQ(traced(), Lines());

    const auto nested = dir->vrfStatus("red");
    nested->hasNotificationActiveIs(false);
    dir->hasNotificationActiveIs(true); // as it was: changes nothing
    EXPECT_FALSE(nested->notificationActive());
    dir->hasNotificationActiveIs(false);
    entry->vrfIdIs(3);
    enabled->vrfEnabledIs("green", true);
    dir->hasNotificationActiveIs(true);
    EXPECT_EQ(traced(), Lines()) << "nothing is replayed";
    entry->vrfIdIs(4);
    EXPECT_EQ(traced(), (Lines{handling, adding}));

    const auto isSilent = [&](const Handle<NatVrfDirSm::NestedSm_VrfStatus>& machine) {
        entry->vrfIdIs(entry->vrfId() + 1);
        machine->handleVrfStatusVrfId();
        return machine->retired() && machine->owner() == nullptr && traced().empty();
    };
    routeStatus->vrfStatusDel("red");
    EXPECT_EQ(traced(), Lines{handling});
    EXPECT_TRUE(isSilent(nested));
    EXPECT_EQ(dir->vrfStatusDel("red"), nullptr);
    EXPECT_THROW(dir->vrfStatusIs(nullptr), State::NullArgumentError);
    dir->vrfStatusIs(entry);
    const auto handedBack = dir->vrfStatus("red");
    EXPECT_EQ(dir->vrfStatusDel("red"), handedBack);
    EXPECT_TRUE(isSilent(handedBack));
    dir->vrfStatusIs(entry);
    const auto last = dir->vrfStatus("red");
    dir.reset();
    EXPECT_TRUE(isSilent(last));
    EXPECT_EQ(content(*map), "1 VRFs, 2 tables") << "the end leaves the map as it is";
    EXPECT_FALSE(routeStatus->hasSubscribers() || enabled->hasSubscribers());
}

TEST_F(VrfDir, AnyInputMayBeMissing) {
    vrfIs("red", 3);
    NatVrfDirSm::NatVrfDirSmIs(nullptr, routeStatus, enabled, map);
    NatVrfDirSm::NatVrfDirSmIs(shmem, nullptr, enabled, map);
    NatVrfDirSm::NatVrfDirSmIs(shmem, routeStatus, nullptr, map);
    NatVrfDirSm::NatVrfDirSmIs(shmem, routeStatus, enabled, nullptr);
    EXPECT_EQ(heard, Lines());
    EXPECT_EQ(content(*map), "0 VRFs, 0 tables");
}

TEST_F(VrfDir, AnAbandonedConstructionLeavesNothingAttached) {
    const auto entry = vrfIs("red", 3);
    const auto isAttached = [&] {
        return entry->hasSubscribers() || routeStatus->hasSubscribers() || enabled->hasSubscribers();
    };
    start(); // from here on, all its trace statements are known
    const auto clear = [&] {
        EXPECT_FALSE(isAttached());
        map = makeHandle<NatMrouteRouteMap>();
    };
    dir.reset();
    clear();
    EXPECT_GT(FailingAllocation::atEachStepOf([&] { start(); }, clear), 5U);
    EXPECT_TRUE(isAttached());
    dir.reset();

    vrfStatusIs("blue", 0x01000000);
    enabled->vrfEnabledIs("blue", true);
    clear();
    const std::vector<State::Argument> inputs{shmem, routeStatus, enabled, map};
    EXPECT_THROW(State::createByTypeName("KestrelNat::NatVrfDirSm", inputs), State::RangeError);
    EXPECT_FALSE(isAttached() || map->vrfNameToIdHas("blue"));
}

using VrfDirDeathTest = VrfDir;

TEST_F(VrfDirDeathTest, BrokenInvariantsEndTheProcess) {
    const auto entry = vrfIs("red", 3);
    vrfIs("blue", 5);
    enabled->vrfEnabledIs("blue", false);
    start();
    const std::string where = "KestrelNat/KestrelNatMulticastMounter/NatVrfDirVrfs.cpp:[0-9]+: "
                              "void KestrelNat::NatVrfDirSm::handleVrf\\(const L3::VrfName&\\): Assertion `";
    EXPECT_DEATH(entry->vrfIdIs(4), where + "!mrouteRouteMap\\(\\)->vrfNameToIdHas\\( vrfName \\) && "
                                            "\"vrfId should not change here\"' failed");
    const auto notMounted = [&](Type type, const std::string& name) {
        (lumen ? entities : tables)->entityDel(path("blue", type));
        EXPECT_DEATH(enabled->vrfEnabledIs("blue", true),
                     where + "!!" + name + " && \"" + name + " not mounted\"' failed");
    };
    notMounted(sparse, lumen ? "statusByVrfSparse" : "mcastRouteSparse");
    notMounted(plain, lumen ? "statusByVrf" : "mcastRouteStatic");
}

} // namespace

} // namespace NatTest
