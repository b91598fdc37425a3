// The mroute service: from a changed route to the published answer, at 100 to 1,000,000 routes with 16,384
// requests, beside the floor (what any implementation must do for one change: the probes, the set, two
// writes, one notification) and beside a walk of a dense table. Then start-up, one interface change, rows
// visited and bytes. Runs for the source of routes that the toggle chose; without arguments it runs itself
// for both. `bench-mroute changes ROUTES FLOWS COUNT` does nothing but change routes, under a profiler.
#include "bench/MrouteSubjects.h"
#include "bench/Report.h"
#include "state/Trace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace MrouteSubjects;
using Bench::quick;

constexpr std::size_t requestCount = 16384;
constexpr std::size_t hotFlows = 64;

// The flows to change, in the order of changing.
std::vector<std::uint32_t> changesOf(std::size_t flows, std::size_t count) {
    std::mt19937 random(7);
    std::vector<std::uint32_t> order(count);
    for (auto& each : order)
        each = static_cast<std::uint32_t>(random() % flows);
    return order;
}

template <class Subject>
double changeTime(Subject& subject, const Interfaces& interfaces, const std::vector<std::uint32_t>& order) {
    std::vector<std::uint8_t> state(requestCount, 0);
    return Bench::leastOf(quick ? 3 : 5, [&] {
        return Bench::timeEach(order.size(), [&] {
            for (const std::uint32_t i : order) {
                state[i] ^= 1U;
                subject.change(i, interfaces, state[i]);
            }
        });
    });
}

struct ChangeFigures {
    double floor[2];   // uniform, hot
    double ringOff[2]; //
    double ringOn[2];  //
    double walk;
};

ChangeFigures measureChanges(std::size_t routes, const Interfaces& interfaces, std::span<std::byte> ring) {
    const std::size_t requests = std::min(routes, requestCount);
    const std::size_t count = quick ? 50'000 : 200'000;
    const std::vector<std::uint32_t> orders[2] = {changesOf(requests, count),
                                                  changesOf(std::min(requests, hotFlows), count)};
    ChangeFigures figures{};
    {
        Floor floor(routes, requests, interfaces);
        for (int hot = 0; hot < 2; ++hot)
            figures.floor[hot] = changeTime(floor, interfaces, orders[hot]);
    }
    System system(routes, requests, interfaces);
    system.start();
    for (int hot = 0; hot < 2; ++hot) {
        State::traceRingIs({});
        const auto before = system.heard();
        figures.ringOff[hot] = changeTime(system, interfaces, orders[hot]);
        if (system.heard() - before < count) {
            std::printf("answers are missing: %llu heard\n",
                        static_cast<unsigned long long>(system.heard() - before));
            std::exit(1);
        }
        State::traceRingIs(ring);
        figures.ringOn[hot] = changeTime(system, interfaces, orders[hot]);
    }
    const DenseWalk dense(routes, interfaces);
    std::vector<std::uint32_t> sought = changesOf(routes, std::max<std::size_t>(20, 5'000'000 / routes));
    std::size_t sum = 0;
    figures.walk = Bench::leastOf(3, [&] {
        return Bench::timeEach(sought.size(), [&] {
            for (const std::uint32_t route : sought)
                sum += dense.find(flowOf(route));
        });
    });
    std::fprintf(stderr, "%s", sum == 0 ? "\n" : ""); // the walks are not optimised away
    return figures;
}

std::string routesText(std::size_t routes) {
    return std::to_string(routes) + (lumen ? " Lumen routes" : " Quill routes");
}

void reportChanges(const std::vector<std::size_t>& sizes, const Interfaces& interfaces) {
    static std::vector<std::byte> ring(1U << 20U); // what follows traces into it as well
    std::vector<ChangeFigures> all;
    {
        Bench::Report report("change -> answer, 16,384 requests", "ns", "floor ns");
        for (const std::size_t routes : sizes) {
            const ChangeFigures& f = all.emplace_back(measureChanges(routes, interfaces, ring));
            for (const int hot : {0, 1}) {
                const std::string name = routesText(routes) + (hot != 0 ? ", hot" : ", uniform");
                report.atMost((name + ", ring off").c_str(), f.ringOff[hot], f.floor[hot], 2.5);
                report.atMost((name + ", ring on").c_str(), f.ringOn[hot], f.floor[hot], 3.2);
            }
        }
    }
    {
        Bench::Report report("change -> answer, as tables grow", "ns", "100 routes");
        for (std::size_t i = 1; i < sizes.size(); ++i) {
            const double goal = sizes[i] == 100'000 ? 1.2 : sizes[i] == 1'000'000 ? 1.4 : 0;
            report.atMost((routesText(sizes[i]) + ", hot").c_str(), all[i].ringOff[1], all[0].ringOff[1],
                          goal);
        }
    }
    Bench::Report report("change -> answer, and the walk of a dense table alone", "ns", "walk ns");
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        const double goal = sizes[i] == 100'000 ? 100 : sizes[i] == 1'000'000 ? 2000 : 0;
        report.timesBetter((routesText(sizes[i]) + ", uniform").c_str(), all[i].ringOff[0], all[i].walk,
                           goal);
    }
}

// Rows that one (S,G) recompute looks at, counted by the trace lines that tell of each.
void reportRowsVisited(const Interfaces& interfaces) {
    Bench::Report report("rows visited per (S,G) recompute", "rows", "");
    for (const std::size_t routes : {std::size_t{100}, std::size_t{100'000}}) {
        System system(routes, 100, interfaces);
        system.start();
        const auto mark = State::traceNext();
        system.change(7, interfaces, 1);
        std::size_t rows = 0;
        for (const auto& record : State::traceRecordsSince(mark))
            rows += record.message.starts_with("Iterating oifs for routeKey=") ? 1U : 0U;
        report.limit(routesText(routes).c_str(), static_cast<double>(rows), 1);
    }
}

void reportStartAndInterface(const Interfaces& interfaces) {
    const std::size_t routes = 100'000;
    System system(routes, requestCount, interfaces);
    const double start = Bench::timeEach(1, [&] { system.start(); });
    {
        Bench::Report report("start-up over a table that is there, 16,384 requests", "ms", "");
        report.row(routesText(routes).c_str(), start / 1e6);
    }
    if (lumen)
        return;
    Bench::Report report("one interface change, a route of the table", "ns", "");
    bool other = false;
    const double each = Bench::leastOf(5, [&] {
        return Bench::timeEach(routes, [&] {
            other = !other;
            system.changeInterface(1, other ? "Port1" : "Ethernet1");
        });
    });
    report.limit(routesText(routes).c_str(), each, 150);
}

std::size_t heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

void reportBytes(const Interfaces& interfaces) {
    const std::size_t routes = quick ? 100'000 : 1'000'000;
    const std::size_t before = heapInUse();
    auto system = std::make_unique<System>(routes, 0, interfaces);
    const double stored = static_cast<double>(heapInUse() - before) / static_cast<double>(routes);
    system->start();
    const double watched = static_cast<double>(heapInUse() - before) / static_cast<double>(routes);
    Bench::Report report("memory", "bytes", "");
    report.limit((routesText(routes) + ", 4 interfaces: a route").c_str(), stored, 130);
    report.row((routesText(routes) + ": a route and its watcher").c_str(), watched);
    system.reset();

    const std::size_t asked = 100'000;
    const std::size_t beforeRoutes = heapInUse();
    auto bare = std::make_unique<System>(asked, 0, interfaces);
    bare->start();
    const std::size_t routesAlone = heapInUse() - beforeRoutes;
    bare.reset();
    const std::size_t beforeBoth = heapInUse();
    auto both = std::make_unique<System>(asked, asked, interfaces);
    both->start();
    // The bench's own handle to each changed route is not the system's.
    const std::size_t benchOwn = lumen ? asked * sizeof(Handle<LumenRoute>) : 0;
    const double request = static_cast<double>(heapInUse() - beforeBoth - routesAlone - benchOwn) / asked;
    report.limit((routesText(asked) + ": a request with its answer").c_str(), request, 300);
}

// Changes for a profiler: nothing else is done but the set-up before.
void changeOnly(std::size_t routes, std::size_t flows, std::size_t count) {
    const Interfaces interfaces;
    const std::size_t requests = std::min(routes, requestCount);
    System system(routes, requests, interfaces);
    system.start();
    std::vector<std::uint8_t> state(requestCount, 0);
    for (const std::uint32_t i : changesOf(std::min(flows, requests), count)) {
        state[i] ^= 1U;
        system.change(i, interfaces, state[i]);
    }
    std::printf("%llu answers\n", static_cast<unsigned long long>(system.heard()));
}

int runHere() {
    State::traceSinkIs([](void*, const State::TraceRecord&) {}, nullptr);
    const Interfaces interfaces;
    std::vector<std::size_t> sizes{100, 1'000, 10'000, 100'000, 1'000'000};
    if (quick)
        sizes = {100, 10'000, 100'000};
    reportChanges(sizes, interfaces);
    reportRowsVisited(interfaces);
    reportStartAndInterface(interfaces);
    reportBytes(interfaces);
    return 0;
}

} // namespace

int main(int count, char** arguments) {
    if (count == 5 && std::string_view(arguments[1]) == "changes") {
        changeOnly(std::strtoul(arguments[2], nullptr, 10), std::strtoul(arguments[3], nullptr, 10),
                   std::strtoul(arguments[4], nullptr, 10));
        return 0;
    }
    if (count > 1)
        return runHere();
    int status = 0;
    for (const char* source : {"true", "false"}) {
        std::string directory = "/tmp/kestrel-bench-toggle-";
        directory += std::to_string(std::random_device()());
        char command[1024];
        std::snprintf(command, sizeof command,
                      "mkdir %s && echo '{\"KestrelNatMfibLumen\": %s}' >%s/KestrelNat.json && "
                      "KESTREL_TOGGLE_DIR=%s %s run; status=$?; rm -r %s; exit $status",
                      directory.c_str(), source, directory.c_str(), directory.c_str(), arguments[0],
                      directory.c_str());
        std::fflush(stdout);
        status |= std::system(command);
    }
    return status == 0 ? 0 : 1;
}
