// What the benchmark programs share.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <iostream>

// A fixed number of iterations, so that the instructions of two numbers can be subtracted (count-instructions.sh).
inline void with_iterations(benchmark::internal::Benchmark *benchmark)
{
    if (const char *text = std::getenv("LACPD_BENCHMARK_ITERATIONS"))
        benchmark->Iterations(std::strtol(text, nullptr, 10));
}

// The daemon's parts talk on standard output, so the table goes to standard error.
inline int run_benchmarks(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_None);
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    return benchmark::RunSpecifiedBenchmarks(&reporter) == 0 ? 1 : 0;
}
