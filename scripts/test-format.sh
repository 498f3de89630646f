#!/usr/bin/env bash
# Checks the layout of the tracked C++ sources against .clang-format; changes nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -z '*.cpp' '*.h' '*.hpp' | xargs -0 -r clang-format --dry-run -Werror
