#include "agent/host/Host.h"

#include "agent/host/Paths.h"
#include "records/MrouteGroup.h"
#include "records/QuillFib.h"
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

// What the plug-in answered itself when it asked for its toggle.
bool toggleValue(const std::string& file) {
    const auto asked = State::toggles();
    const auto found = std::ranges::find(asked, Host::sourceToggle, &State::ToggleStatus::name);
    if (found == asked.end()) {
        throw std::runtime_error(file + " did not ask for the toggle " + Host::sourceToggle +
                                 " while it was loaded");
    }
    return found->value;
}

} // namespace

Host::Host()
    : stores_{.database = State::makeHandle<State::Store>("the state database"),
              .tables = State::makeHandle<State::Store>("the table store"),
              .entities = State::makeHandle<State::Store>("the entity store")}
    , stateEm_(State::makeHandle<State::EntityManager>(stores_.database))
    , shmemEm_(State::makeHandle<State::ShmEntityManager>(stores_.tables, stores_.entities)) {
    for (const PathShape& shape : Paths::shapes())
        if (shape.store == &Stores::database)
            stores_.database->entityIs(shape.text, shape.entityType().name());
    using KestrelCommon::MrouteGroup::MgroupColl;
    using QuillTable = Quill::Multicast::Fib::Status;
    using namespace Routing::Multicast::Fib;
    stores_.tables->entityIs(MgroupColl::path, MgroupColl::type().name());
    for (const char* mode : {staticMode, sparseMode})
        stores_.tables->entityIs(QuillTable::mountPath("default", mode), QuillTable::type().name());
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
    const auto picked = std::ranges::find(routeSources(), toggleValue(file), &RouteSourceRow::toggle);
    routes_ = picked->make(stores_);
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
    const State::MountStatus status = stateEm_->performMounts(*mounter);
    for (const State::MountStatus::Failure& failure : status.failures)
        TRACE(0, "Host::", "start", " mount of ", failure.path, " failed: ", failure.reason);
    mounter->doMountsComplete(status, stateEm_);
    mounter_ = std::move(mounter);
}

void Host::stop() {
    if (mounter_) {
        TRACE(6, "Host::", "stop");
        mounter_.reset();
    }
}

} // namespace Agent
