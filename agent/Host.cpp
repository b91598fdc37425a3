#include "agent/Host.h"

#include "records/LumenFib.h"
#include "state/Toggle.h"
#include "state/Trace.h"
#include "state/TypeRegistry.h"

#include <dlfcn.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

TRACE_FACILITY("Agent");

namespace Agent {

namespace {

constexpr std::pair<const char*, const char*> databaseEntities[] = {
    {"api/mroute/req", "KestrelNat::NatMrouteRequestSet"},
    {"api/mroute/resp", "KestrelNat::NatMrouteResponseMap"},
    {"api/mgroup/req", "KestrelNat::NatMgroupRequestSet"},
    {"api/mgroup/resp", "KestrelNat::NatMgroupResponseMap"},
    {"api/multicastSmStatus", "KestrelNat::MulticastSmStatus"},
    {"hardware/kestrel/nat/capability/config", "KestrelNat::CapabilityConfig"},
    {"routing/hardware/route/status", "Routing::Hardware::RouteStatus"},
    {"routing/multicast/fibenabled/status", "Routing::Multicast::Fib::VrfEnabledStatus"},
};

constexpr std::pair<const char*, const char*> tables[] = {
    {"l3/mroutegroup/status", "KestrelCommon::MrouteGroup::MgroupColl"},
    {"routing/multicast/routestatus/default/static", "Quill::Multicast::Fib::Status"},
    {"routing/multicast/routestatus/default/sparsemode", "Quill::Multicast::Fib::Status"},
};

/// What the plug-in answered itself when it asked for its toggle.
bool toggleValue(const std::string& file) {
    const auto asked = State::toggles();
    const auto found = std::ranges::find(asked, Host::lumenToggle, &State::ToggleStatus::name);
    if (found == asked.end()) {
        throw std::runtime_error(file + " did not ask for the toggle " + Host::lumenToggle +
                                 " while it was loaded");
    }
    return found->value;
}

} // namespace

Host::Host()
    : database_(State::makeHandle<State::Store>("the state database"))
    , tableStore_(State::makeHandle<State::Store>("the table store"))
    , entityStore_(State::makeHandle<State::Store>("the entity store"))
    , stateEm_(State::makeHandle<State::EntityManager>(database_))
    , shmemEm_(State::makeHandle<State::ShmEntityManager>(tableStore_, entityStore_)) {
    for (const auto& [path, type] : databaseEntities)
        database_->entityIs(path, type);
    for (const auto& [path, type] : tables)
        tableStore_->entityIs(path, type);
}

Host::~Host() {
    stop();
}

void Host::load(const std::string& file) {
    TRACE(6, "Host::", "load", " file=", file);
    if (::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL) == nullptr) {
        const char* const why = ::dlerror();
        throw std::runtime_error(why != nullptr ? why : file + " can't be loaded");
    }
    const auto types = State::creatableTypes();
    if (std::ranges::find(types, mounterType) == types.end()) {
        throw std::runtime_error(file + " is no plug-in for this agent: it does not have the type " +
                                 mounterType);
    }
    isLumen_ = toggleValue(file);
    if (isLumen_) {
        using Lumen::Multicast::Fib::StatusByVrf;
        for (const char* const name : {"user", "sparsemode"}) {
            entityStore_->entityIs(StatusByVrf::mountPath(L3::AddressFamily::ipv4, name),
                                   "Lumen::Multicast::Fib::StatusByVrf");
        }
    }
}

void Host::start() {
    TRACE(6, "Host::", "start");
    const State::Argument name = std::string("KestrelNatMulticastMounter");
    auto mounter =
        State::handleCast<KestrelLib::MounterBase>(State::createByTypeName(mounterType, {&name, 1}));
    if (!mounter)
        throw std::runtime_error(std::string(mounterType) + " is no mounter");
    mounter->contextIs(stateEm_, shmemEm_);
    mounter->doInit();
    mountStatus_ = stateEm_->performMounts(*mounter);
    for (const State::MountStatus::Failure& failure : mountStatus_.failures)
        TRACE(0, "Host::", "start", " mount of ", failure.path, " failed: ", failure.reason);
    mounter->doMountsComplete(mountStatus_, stateEm_);
    mounter_ = std::move(mounter);
}

void Host::stop() {
    if (mounter_) {
        TRACE(6, "Host::", "stop");
        mounter_.reset();
    }
}

} // namespace Agent
