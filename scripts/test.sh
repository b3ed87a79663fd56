#!/usr/bin/env bash
# Builds everything under AddressSanitizer and UndefinedBehaviorSanitizer, with warnings as
# errors, and runs every test (the builds against the installed tree among them); runs clang-tidy
# over the product code; builds and checks the Debian package; then each fuzz target briefly.
# Formatting is checked first: it is the cheapest failure.
set -euo pipefail
cd "$(dirname "$0")/.."

sources=$(git ls-files -- 'Sources/*.cpp' 'Sources/*.h' 'Tests/*.cpp' 'Tests/*.h' 'bench/*.cpp' 'fuzz/*.cpp' 'tools/*.cpp' 'tools/*.h' 2>/dev/null || true)
if [ -n "$sources" ]; then
    # shellcheck disable=SC2086
    clang-format --dry-run --Werror $sources
fi

cmake --workflow --preset test

# The checks in .clang-tidy, over Sources/ with the compile commands of the build above (which
# also made the files Qt generates). Any finding fails the run. The tests are left out to keep
# the step short: they hold no product code, and the sanitizers watch them as they run.
echo "clang-tidy: Sources/"
started=$SECONDS
# The build's GCC-only warning switches mean nothing to clang, which would report each of them.
if ! run-clang-tidy -p build/asan -quiet -j "$(nproc)" -extra-arg=-Wno-unknown-warning-option "$PWD/Sources/" \
    >build/asan/clang-tidy.log 2>&1; then
    sed 's/\x1b\[[0-9;]*m//g' build/asan/clang-tidy.log | grep -v -e '^clang-tidy' -e ' warnings\? generated\.$' >&2
    echo "clang-tidy: the findings above fail the run (all of its output: build/asan/clang-tidy.log)" >&2
    exit 1
fi
echo "clang-tidy: no findings ($((SECONDS - started))s)"

scripts/package.sh

scripts/fuzz.sh
