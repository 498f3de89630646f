#!/usr/bin/env bash
# Builds everything for 64-bit ARM and runs the tests of engine, displays, switch and recorded inputs under qemu-user.
#
#   scripts/test-aarch64.sh [BUILD]    BUILD is the build directory (default: build-aarch64)
#
# The first run also builds the libraries. Not run: tests of the datastore and of whole systems. qemu-user has no
# set_robust_list(2), without which sysrepo cannot lock its shared memory.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-aarch64}

scripts/deps.sh --target aarch64 --tests >/dev/null
cmake -S . -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
cmake --build "$build" -j "${JOBS:-$(nproc)}"
sysroot=$(sed -n 's/^LACPD_DEPS_PREFIX:[A-Z]*=//p' "$build/CMakeCache.txt")/sysroot
qemu-aarch64 -L "$sysroot" "$build/services/l2/lacpd/lacpd" --help 2>/dev/null
qemu-aarch64 -L "$sysroot" "$build/switch/olt-switch" --version
ctest --test-dir "$build" --output-on-failure --no-tests=error --no-label-summary -j "${JOBS:-$(nproc)}" \
  -L unit
