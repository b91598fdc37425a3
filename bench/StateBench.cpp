// The state framework's parts: the hashed container, the trace.
#include "bench/HandleBench.h"
#include "bench/TableBench.h"
#include "bench/TraceBench.h"

#include <benchmark/benchmark.h>

int main(int count, char** arguments) {
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments))
        return 1;
    TableBench::report();
    TraceBench::report();
    benchmark::RunSpecifiedBenchmarks();
}
