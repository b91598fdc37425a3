// Handles and publishing, beside std::shared_ptr and a bare call through a function pointer.
#pragma once

#include "state/Handle.h"
#include "state/Publisher.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>

namespace HandleBench {

class Thing final : public State::Publisher {};

inline void copyHandle(benchmark::State& state) {
    const auto handle = State::makeHandle<Thing>();
    for (auto step : state) {
        State::Handle<Thing> copy = handle;
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(copyHandle)->Name("handle/copy and drop");

inline void copyShared(benchmark::State& state) {
    const auto pointer = std::make_shared<int>(1);
    for (auto step : state) {
        std::shared_ptr<int> copy = pointer;
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(copyShared)->Name("handle/peer: std::shared_ptr");

inline void count(void* counter, const State::Notification& change) {
    *static_cast<std::uint64_t*>(counter) += change.attribute;
}

inline void publish(benchmark::State& state) {
    const auto thing = State::makeHandle<Thing>();
    std::uint64_t counters[16] = {};
    for (std::int64_t i = 0; i < state.range(0); ++i)
        thing->subscribe(&counters[i], &count);
    for (auto step : state)
        thing->publish(1);
    benchmark::DoNotOptimize(counters);
    for (std::int64_t i = 0; i < state.range(0); ++i)
        thing->unsubscribe(&counters[i], &count);
}
BENCHMARK(publish)->Name("publish/subscribers")->Arg(0)->Arg(1)->Arg(4)->Arg(16);

inline void call(benchmark::State& state) {
    const auto thing = State::makeHandle<Thing>();
    std::uint64_t counter = 0;
    State::Dispatch dispatch = &count;
    benchmark::DoNotOptimize(dispatch);
    for (auto step : state)
        dispatch(&counter, State::Notification{*thing, 1, nullptr});
    benchmark::DoNotOptimize(counter);
}
BENCHMARK(call)->Name("publish/peer: bare call");

} // namespace HandleBench
