// What tracing costs: a record, a statement that is switched off, a line of text, and a record against
// loggers that format each message and throw it away. Included by bench/StateBench.cpp.
#pragma once

#include "bench/Report.h"
#include "state/Trace.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <span>
#include <sstream>
#include <string>
#include <string_view>

TRACE_FACILITY("TraceBench"); // NOLINT(misc-definitions-in-headers): one file includes this

namespace TraceBench {

struct Values {
    std::uint32_t vrfId = 3;
    std::uint32_t source = 0x0a000001;
    std::uint32_t group = 0xef010101;
    std::uint16_t vlan = 10;
};

// The values change from call to call and come from memory, as a handler's do.
inline Values& step(Values& values) {
    ++values.source;
    benchmark::DoNotOptimize(values);
    return values;
}

// Holds a ring of the default size, or none, and the text trace's level while a benchmark runs; lines are
// counted and dropped.
class Setup {
  public:
    Setup(bool ring, int level)
        : memory_(new std::byte[State::traceRingDefaultBytes]) {
        State::traceRingIs(ring ? std::span(memory_.get(), State::traceRingDefaultBytes)
                                : std::span<std::byte>());
        State::traceLevelIs("TraceBench", level);
        State::traceSinkIs(
            [](void* count, const State::TraceRecord&) { ++*static_cast<std::size_t*>(count); }, &lines_);
    }
    Setup(const Setup&) = delete;
    Setup& operator=(const Setup&) = delete;
    ~Setup() {
        State::traceRingIs({});
        State::traceLevelIs("TraceBench", 0);
        State::traceSinkIs(nullptr, nullptr);
    }

  private:
    std::unique_ptr<std::byte[]> memory_;
    std::size_t lines_ = 0;
};

inline void traceFour(const Values& values) {
    TRACE(8, "handleMrouteReq", " adding", " request vrfId=", values.vrfId, " S=", values.source,
          " G=", values.group, " V=", values.vlan);
}

// ---- loggers for comparison: level test, message formatted, handed to a sink that drops it ------

using Sink = void (*)(std::string_view line);
inline Sink nullSink = [](std::string_view line) { benchmark::DoNotOptimize(line.data()); };
inline int loggerLevel = 8;

inline void streamLog(const Values& values) {
    if (loggerLevel >= 8) {
        std::ostringstream line;
        line << 8 << " TraceBench " << __FILE__ << ':' << __LINE__ << ' ' << __func__ << ": "
             << "handleMrouteReq adding request vrfId=" << values.vrfId << " S=" << values.source
             << " G=" << values.group << " V=" << values.vlan;
        nullSink(line.view());
    }
}

inline void printfLog(const Values& values) {
    if (loggerLevel >= 8) {
        char line[512];
        const int size = std::snprintf(
            line, sizeof line,
            "%d TraceBench %s:%d %s: handleMrouteReq adding request vrfId=%u S=%u G=%u V=%u", 8, __FILE__,
            __LINE__, __func__, values.vrfId, values.source, values.group, unsigned{values.vlan});
        nullSink({line, static_cast<std::size_t>(size)});
    }
}

// ---- benchmarks ---------------------------------------------------------------------------------

inline void record(benchmark::State& state) {
    const Setup setup(true, 0);
    Values values;
    for (auto _ : state)
        traceFour(step(values));
}
BENCHMARK(record)->Name("trace/record, 4 values");

inline void recordWithText(benchmark::State& state) {
    const Setup setup(true, 0);
    std::string routeName = "sparsemode";
    for (auto _ : state) {
        benchmark::DoNotOptimize(routeName);
        TRACE(8, "updateResponseMap", " routeType=", routeName);
    }
}
BENCHMARK(recordWithText)->Name("trace/record, 1 string");

inline void switchedOff(benchmark::State& state) {
    const Setup setup(false, 0);
    Values values;
    for (auto _ : state)
        traceFour(step(values));
}
BENCHMARK(switchedOff)->Name("trace/ring and text off");

inline void noTrace(benchmark::State& state) {
    Values values;
    for (auto _ : state)
        step(values);
}
BENCHMARK(noTrace)->Name("trace/the loop alone");

inline void textLine(benchmark::State& state) {
    const Setup setup(false, 8);
    Values values;
    for (auto _ : state)
        traceFour(step(values));
}
BENCHMARK(textLine)->Name("trace/text line to a null sink");

inline void eventBegin(benchmark::State& state) {
    const Setup setup(true, 0);
    for (auto _ : state)
        State::traceEventBegin();
}
BENCHMARK(eventBegin)->Name("trace/time stamp of an event");

// ---- the report

// Nanoseconds a call of each log, over batches in turn, the loop included.
inline void report() {
    const Setup setup(true, 0);
    Values values;
    constexpr std::size_t calls = 20'000;
    const auto each = [&](auto log) {
        return Bench::timeEach(calls, [&] {
            for (std::size_t i = 0; i < calls; ++i)
                log(step(values));
        });
    };
    double traced = std::numeric_limits<double>::max();
    double streamed = traced;
    double printed = traced;
    for (int pass = 0; pass < (Bench::quick ? 20 : 200); ++pass) {
        traced = std::min(traced, each(traceFour));
        streamed = std::min(streamed, each(streamLog));
        printed = std::min(printed, each(printfLog));
    }
    Bench::Report report("a trace record of 4 values in the ring", "ns", "logger ns");
    report.limit("record", traced, 4);
    report.timesBetter("against a logger by ostringstream, null sink", traced, streamed, 30);
    report.timesBetter("against a logger by snprintf, null sink", traced, printed, 30);
}

} // namespace TraceBench
