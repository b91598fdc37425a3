#include "agent/kernel/KernelSource.h"

#include "agent/changes/Operations.h"
#include "agent/host/PostedTask.h"
#include "state/Trace.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <cstdlib>
#include <utility>

TRACE_FACILITY("Agent");

namespace Agent::Kernel {
namespace {

// KESTREL_KERNEL_RCVBUF, in bytes: a small one makes overruns likely, for those who want to see them.
std::size_t receiveBuffer() {
    const char* text = std::getenv("KESTREL_KERNEL_RCVBUF");
    const long wanted = text == nullptr ? 0 : std::strtol(text, nullptr, 10);
    return wanted > 0 ? static_cast<std::size_t>(wanted) : NetlinkSource::defaultReceiveBuffer;
}

void writeCounters(Text::Writer& writer, const Counters& counters) {
    writer.beginRecord();
    writer.member("events", counters.events);
    writer.member("coalesced", counters.coalesced);
    writer.member("unchanged", counters.unchanged);
    writer.member("changes", counters.changes);
    writer.member("refused", counters.refused);
    writer.member("overruns", counters.overruns);
    writer.member("resyncs", counters.resyncs);
    writer.member("disturbed", counters.disturbed);
    writer.member("lookups", counters.lookups);
    writer.member("malformed", counters.malformed);
    writer.field("skipped");
    writer.beginRecord();
    writer.member("unresolved", counters.skippedUnresolved);
    writer.member("groupZero", counters.skippedGroupZero);
    writer.member("otherTable", counters.skippedOtherTable);
    writer.end();
    writer.end();
}

} // namespace

// What stands in the loop for the source. Callbacks that the loop still has when the source goes find it gone.
struct KernelSource::OnLoop {
    OnLoop(asio::io_context& loop, int fd, std::function<void()> slice)
        : events(loop, fd)
        , timer(loop, Mirror::Clock::time_point())
        , slices(loop, std::move(slice)) {}
    ~OnLoop() { events.release(); } // the subscription closes it

    asio::posix::stream_descriptor events;
    asio::steady_timer timer;
    PostedTask slices;
};

KernelSource::KernelSource(asio::io_context& loop, Operations& operations, const std::string& configFile)
    : operations_(operations)
    , configFile_(configFile)
    , tables_(agentTables(operations))
    , source_(readKernelConfig(configFile), *tables_, receiveBuffer())
    , onLoop_(std::make_shared<OnLoop>(loop, source_.fd(), [this] { doSlice(); })) {
    watch();
    goOn();
    TRACE(6, "KernelSource::", "KernelSource", " config=", configFile_);
}

KernelSource::~KernelSource() = default;

void KernelSource::watch() {
    onLoop_->events.async_wait(asio::posix::stream_descriptor::wait_read,
                               [this, alive = std::weak_ptr(onLoop_)](const asio::error_code& error) {
                                   if (error || alive.expired())
                                       return;
                                   watch();
                                   State::traceEventBegin();
                                   source_.onReadable();
                                   goOn();
                               });
}

void KernelSource::doSlice() {
    if (source_.hasWork()) {
        State::traceEventBegin();
        source_.doSlice();
    }
    tablesMayHaveChanged();
}

// Has the next slice done: on another turn of the loop, or when the source will have work.
void KernelSource::goOn() {
    if (source_.hasWork())
        return onLoop_->slices.request();
    const auto due = source_.waitsUntil();
    if (!due || *due == onLoop_->timer.expiry())
        return;
    onLoop_->timer.expires_at(*due);
    onLoop_->timer.async_wait([this, alive = std::weak_ptr(onLoop_)](const asio::error_code& error) {
        if (!error && !alive.expired())
            goOn();
    });
}

void KernelSource::tablesMayHaveChanged() {
    const std::uint64_t changes = operations_.counters().changes;
    if (std::exchange(changesSeen_, changes) != changes)
        source_.retry();
    goOn();
}

void KernelSource::status(Text::Writer& writer) const {
    const Mirror& mirror = source_.mirror();
    writer.beginRecord();
    writer.member("config", configFile_);
    writer.member("synced", source_.synced());
    writer.member("receiveBuffer", source_.receiveBuffer());
    writer.field("counters");
    writeCounters(writer, mirror.counters());
    writer.field("vrfs");
    mirror.vrfStatus(writer);
    if (mirror.lastError().empty()) {
        writer.member("lastError", nullptr);
    } else {
        const auto since = mirror.lastErrorAt().time_since_epoch();
        writer.member("lastError", mirror.lastError());
        writer.member("lastErrorAt", std::chrono::duration_cast<std::chrono::seconds>(since).count());
    }
    writer.end();
}

void KernelSource::verify(Text::Reply reply) {
    source_.verify([reply = std::move(reply)](const VerifyResult& result) {
        reply([&](Text::Writer& writer) { result.write(writer); });
    });
    goOn();
}

void KernelSource::reconfigure() {
    source_.reconfigure(readKernelConfig(configFile_));
    goOn();
    TRACE(6, "KernelSource::", "reconfigure", " config=", configFile_);
}

} // namespace Agent::Kernel
