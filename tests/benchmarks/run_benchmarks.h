#pragma once

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <iostream>

// Work on what is made before the clock starts. The processor's time is the whole process's.
// LACPD_BENCHMARK_ITERATIONS fixes the iterations, so that the instructions of two numbers can be subtracted
// (count-instructions.sh).
template <typename Subject = int, typename Work> void add_benchmark(const char *name, Work work)
{
    auto *added = benchmark::RegisterBenchmark(name, [work](benchmark::State &state) {
        Subject subject;
        for (auto _ : state)
            work(subject);
    });
    added->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime()->UseRealTime();
    if (const char *text = std::getenv("LACPD_BENCHMARK_ITERATIONS"))
        added->Iterations(std::strtol(text, nullptr, 10));
}

// The daemon's parts talk on standard output, so the table goes to standard error.
inline int run_benchmarks(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_None);
    reporter.SetOutputStream(&std::cerr);
    return benchmark::RunSpecifiedBenchmarks(&reporter) == 0 ? 1 : 0;
}
