#!/usr/bin/env bash
# Instructions per LACPDU, Marker, tick, second and selection round: the same on every run and every machine that runs
# the same program. Counted by valgrind for two numbers of iterations, so that what is done once falls out.
#
#   tests/benchmarks/count-instructions.sh [BUILD-DIRECTORY]
set -euo pipefail
cd "$(dirname "$0")/../.."
program=${1:-build}/tests/benchmarks/engine_benchmark
command -v valgrind >/dev/null || { echo "count-instructions.sh: install valgrind" >&2; exit 1; }
few=1000
many=5000

collected() { # BENCHMARK ITERATIONS
  LACPD_BENCHMARK_ITERATIONS=$2 valgrind --tool=callgrind --callgrind-out-file=/dev/null "$program" \
    --benchmark_filter="^$1/" 2>&1 >/dev/null | sed -n 's/.*Collected : *//p'
}

for benchmark in lacpdu marker tick second selection; do
  less=$(collected "$benchmark" $few)
  more=$(collected "$benchmark" $many)
  echo "$benchmark: $(((more - less) / (many - few))) instructions"
done
