#!/usr/bin/env bash
# Builds everything under AddressSanitizer and UndefinedBehaviorSanitizer, with warnings as
# errors, and runs every test, then each fuzz target briefly. Formatting is checked first:
# it is the cheapest failure.
set -euo pipefail
cd "$(dirname "$0")/.."

sources=$(git ls-files -- 'Sources/*.cpp' 'Sources/*.h' 'Tests/*.cpp' 'Tests/*.h' 'bench/*.cpp' 'fuzz/*.cpp' 2>/dev/null || true)
if [ -n "$sources" ]; then
    # shellcheck disable=SC2086
    clang-format --dry-run --Werror $sources
fi

cmake --workflow --preset test
scripts/fuzz.sh
