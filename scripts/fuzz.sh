#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for FUZZ_SECONDS (default 20) as a
# smoke test, seeded from its seed folders and its kept corpus. A crash fails the script and
# leaves the input in build/fuzz/findings/. Longer runs are how bugs are found:
#   FUZZ_SECONDS=3600 scripts/fuzz.sh IcsParserFuzzer
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-20}

targets=()
for seeds in fuzz/*.seeds; do
    [ -e "$seeds" ] || continue
    name=$(basename "$seeds" .seeds)
    if [ $# -eq 0 ] || [[ " $* " == *" $name "* ]]; then targets+=("$name"); fi
done
if [ ${#targets[@]} -eq 0 ]; then
    echo "fuzz: no fuzz targets to run"
    exit 0
fi

cmake --workflow --preset fuzz
mkdir -p build/fuzz/findings
for name in "${targets[@]}"; do
    corpus=build/fuzz/corpus/$name
    mkdir -p "$corpus" "fuzz/corpus/$name"
    folders=("$corpus" "fuzz/corpus/$name")
    while IFS= read -r folder; do
        [ -n "$folder" ] && [ -d "$folder" ] && folders+=("$folder")
    done < "fuzz/$name.seeds"
    echo "fuzz: $name for ${seconds}s"
    ASAN_OPTIONS=detect_leaks=1 build/fuzz/fuzz/"$name" -max_total_time="$seconds" -timeout=10 \
        -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix=build/fuzz/findings/"$name"- \
        "${folders[@]}" 2>&1 | grep -E '^(#|INFO: seed|stat::number_of_executed_units|==|SUMMARY|Done)' || true
    # libFuzzer's own status is lost in the pipe: a finding leaves an artifact.
    if compgen -G "build/fuzz/findings/$name-*" > /dev/null; then
        echo "fuzz: $name found a failing input:" build/fuzz/findings/"$name"-*
        exit 1
    fi
done
