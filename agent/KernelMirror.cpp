#include "agent/KernelMirror.h"

#include "agent/EventLoop.h"
#include "state/Trace.h"

#include <nlohmann/json.hpp>

#include <cstdlib>

TRACE_FACILITY("Agent");

namespace Agent {

using nlohmann::json;

namespace {

// KESTREL_KERNEL_RCVBUF, in bytes: a small one makes overruns likely, for those who want to see them.
std::size_t receiveBuffer() {
    const char* text = std::getenv("KESTREL_KERNEL_RCVBUF");
    const long wanted = text == nullptr ? 0 : std::strtol(text, nullptr, 10);
    return wanted > 0 ? static_cast<std::size_t>(wanted) : Kernel::MfcSource::defaultReceiveBuffer;
}

json countersJson(const Kernel::KernelCounters& counters) {
    return {{"events", counters.events},
            {"coalesced", counters.coalesced},
            {"unchanged", counters.unchanged},
            {"changes", counters.changes},
            {"refused", counters.refused},
            {"overruns", counters.overruns},
            {"resyncs", counters.resyncs},
            {"disturbed", counters.disturbed},
            {"lookups", counters.lookups},
            {"malformed", counters.malformed},
            {"skipped",
             {{"unresolved", counters.skippedUnresolved},
              {"groupZero", counters.skippedGroupZero},
              {"otherTable", counters.skippedOtherTable}}}};
}

json vrfJson(const Kernel::VrfState& vrf) {
    json vifs = json::array();
    for (const std::string& name : vrf.vifNames)
        vifs.push_back(name);
    json pending = json::array();
    for (const Kernel::PendingChange& change : vrf.pending)
        pending.push_back({{"what", change.what}, {"why", change.why}});
    return {{"vrf", vrf.config.name},
            {"id", vrf.config.id},
            {"table", vrf.config.table},
            {"routeType", Kernel::routeTypeRuleText(vrf.config.routeType)},
            {"entered", vrf.entered},
            {"multicast", vrf.multicastEnabled},
            {"synced", vrf.synced},
            {"resyncWanted", vrf.resyncWanted},
            {"leaving", vrf.leaving},
            {"routes", vrf.routes},
            {"rows", vrf.rows},
            {"vifs", std::move(vifs)},
            {"pendingCount", vrf.pendingCount},
            {"pending", std::move(pending)}};
}

json verifyJson(const Kernel::VerifyResult& result) {
    json differences = json::array();
    for (const Kernel::Difference& difference : result.differences) {
        json entry{{"vrf", difference.vrf}, {"what", difference.what}};
        for (const auto& [name, text] : {std::pair{"route", &difference.route},
                                         {"kernel", &difference.kernel},
                                         {"tables", &difference.tables},
                                         {"pending", &difference.pending}})
            if (!text->empty())
                entry[name] = *text;
        differences.push_back(std::move(entry));
    }
    return {{"complete", result.complete},
            {"routes", result.routes},
            {"rows", result.rows},
            {"differenceCount", result.differenceCount},
            {"differences", std::move(differences)},
            {"tookMs", std::chrono::duration_cast<std::chrono::milliseconds>(result.took).count()}};
}

} // namespace

KernelMirror::KernelMirror(Operations& operations, EventLoop& loop, const std::string& configFile)
    : loop_(loop)
    , operations_(operations)
    , configFile_(configFile)
    , tables_(operations)
    , source_(Kernel::readKernelConfig(configFile), tables_, receiveBuffer())
    , hook_(loop.turnHookIs([this] { return turnEnds(); })) {
    for (const int fd : source_.descriptors()) {
        loop_.fdIs(fd, EventLoop::readable, [this, fd](unsigned) {
            State::traceEventBegin();
            source_.onReadable(fd);
        });
    }
    TRACE(6, "KernelMirror::", "KernelMirror", " config=", configFile_);
}

KernelMirror::~KernelMirror() {
    for (const int fd : source_.descriptors())
        loop_.fdDel(fd);
    loop_.turnHookDel(hook_);
}

// A slice at the end of each turn, until nothing is left. Refused changes are tried again when anyone changed
// the tables since.
bool KernelMirror::turnEnds() {
    if (source_.hasWork()) {
        State::traceEventBegin();
        source_.doSlice(sliceRoutes);
    }
    if (const std::uint64_t changes = operations_.counters().changes; changes != changesSeen_) {
        changesSeen_ = changes;
        source_.retry();
    }
    return source_.hasWork();
}

json KernelMirror::status() {
    const Kernel::KernelStatus status = source_.status();
    json vrfs = json::array();
    for (const Kernel::VrfState& vrf : status.vrfs)
        vrfs.push_back(vrfJson(vrf));
    json shown{{"config", configFile_},
               {"synced", source_.synced()},
               {"receiveBuffer", status.receiveBuffer},
               {"counters", countersJson(status.counters)},
               {"vrfs", std::move(vrfs)},
               {"lastError", status.lastError.empty() ? json() : json(status.lastError)}};
    if (!status.lastError.empty()) {
        shown["lastErrorAt"] =
            std::chrono::duration_cast<std::chrono::seconds>(status.lastErrorAt.time_since_epoch()).count();
    }
    return shown;
}

void KernelMirror::verify(std::function<void(json result)> done) {
    source_.verify(
        [done = std::move(done)](const Kernel::VerifyResult& result) { done(verifyJson(result)); });
}

void KernelMirror::configAgain() {
    source_.configIs(Kernel::readKernelConfig(configFile_));
    TRACE(6, "KernelMirror::", "configAgain", " config=", configFile_);
}

std::unique_ptr<KernelSource> makeKernelMirror(Operations& operations, EventLoop& loop,
                                               const std::string& configFile) {
    return std::make_unique<KernelMirror>(operations, loop, configFile);
}

} // namespace Agent
