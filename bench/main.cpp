// The benchmark program: runs the rows that the other files register.

#include <benchmark/benchmark.h>

#include "Process.h"

int main(int argc, char** argv) {
    kelto_bench::FreshMeasurement::RunIfAsked(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
