#!/usr/bin/env bash
# Lines of C++, Python and shell under tests/ and outside it. With --check it fails when tests are more than LIMIT % of
# the rest.
set -euo pipefail
cd "$(dirname "$0")/.."

LIMIT=35

lines() { # pathspec ...
  git ls-files -z -- "$@" | grep -zE '\.(cpp|h|hpp|py|sh)$' | xargs -0 -r cat | wc -l
}

tests=$(lines tests)
code=$(lines . ':!tests')
echo "tests: $tests lines, the rest: $code; $((100 * tests / code)) %, $LIMIT are the aim"
[ "${1:-}" != --check ] || [ $((100 * tests)) -le $((LIMIT * code)) ]
