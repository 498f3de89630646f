#!/usr/bin/env bash
# Fuzzes for a given time, and says what came of it.
#
#   scripts/fuzz.sh SECONDS [TARGET ...]   SECONDS for each target, one after the other; all targets without a name
#
# New inputs are kept in build-fuzz/found/TARGET, an input that fails in build-fuzz/failed/. Ends with status 1 after a
# failure. Run a single failing input again with build-fuzz/tests/fuzz/TARGET_fuzz FILE.
set -euo pipefail
cd "$(dirname "$0")/.."
[[ ${1:-} =~ ^[0-9]+$ ]] || { sed -n '2,8s/^# \{0,1\}//p' "$0" >&2; exit 2; }
seconds=$1
shift

scripts/deps.sh --tests >/dev/null
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" >&2
programs=build-fuzz/tests/fuzz
targets=("$@")
[ ${#targets[@]} -gt 0 ] || for file in tests/fuzz/*_fuzz.cpp; do
  targets+=("$(basename "$file" _fuzz.cpp)")
done

failures=0
for target in "${targets[@]}"; do
  mkdir -p "build-fuzz/found/$target" build-fuzz/failed
  log=build-fuzz/$target.log
  options=()
  started=$SECONDS
  [ ! -e "tests/fuzz/$target.dict" ] || options+=("-dict=tests/fuzz/$target.dict")
  if "$programs/${target}_fuzz" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=25 -print_final_stats=1 -close_fd_mask=1 \
    -artifact_prefix="build-fuzz/failed/$target-" "${options[@]}" \
    "build-fuzz/found/$target" "tests/fuzz/corpus/$target" >"$log" 2>&1; then
    verdict="no finding"
  else
    verdict="FAILED, see $log"
    failures=1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  covered=$(grep -oE 'cov: [0-9]+' "$log" | tail -n 1)
  peak=$(sed -n 's/^stat::peak_rss_mb: *//p' "$log")
  echo "$target: $((SECONDS - started)) s, ${runs:-0} inputs, ${covered:-cov: 0} edges, ${peak:-0} MB at most: $verdict"
done
exit $failures
