#!/usr/bin/env bash
# Times whole `lzfse` processes, encode and decode, on the calendar databases: the median wall
# time of RUNS (default 11) runs each, as MB/s of uncompressed data, with the compression ratio.
# Any tool that takes the same arguments is timed the same way, side by side, and checked to
# round-trip first:
#
#     cmake --workflow --preset bench && bench/lzfse-process.sh [TOOL ...]
#
# TOOL defaults to build/bench/bin/lzfse. Output goes to /dev/null, so no disk write is timed.
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${RUNS:-11}
tools=("$@")
[ ${#tools[@]} -gt 0 ] || tools=(build/bench/bin/lzfse)
files=(../shared/testdata/lzfse/calendar_20k.sqlite build/bench/bench-data/calendar_50mb.sqlite)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Median wall time in nanoseconds of $runs runs of the command.
median_ns() {
    for ((run = 0; run < runs; run++)); do
        start=$(date +%s%N)
        "$@" > /dev/null
        end=$(date +%s%N)
        echo $((end - start))
    done | sort -n | awk '{ t[NR] = $1 } END { print t[int((NR + 1) / 2)] }'
}

printf '%-24s %-22s %10s %10s %7s %12s %12s\n' tool input bytes compressed ratio "encode MB/s" "decode MB/s"
for tool in "${tools[@]}"; do
    for file in "${files[@]}"; do
        if [ ! -f "$file" ]; then
            echo "bench: $file is missing (build the bench preset, or mount ../shared)" >&2
            continue
        fi
        "$tool" -encode -i "$file" > "$work/packed"
        if ! "$tool" -decode -i "$work/packed" | cmp -s - "$file"; then
            echo "bench: $tool does not round-trip $file" >&2
            exit 1
        fi
        raw=$(stat -c %s "$file")
        packed=$(stat -c %s "$work/packed")
        encode=$(median_ns "$tool" -encode -i "$file")
        decode=$(median_ns "$tool" -decode -i "$work/packed")
        awk -v tool="$(basename "$tool")" -v file="$(basename "$file")" -v raw="$raw" -v packed="$packed" \
            -v enc="$encode" -v dec="$decode" 'BEGIN {
                printf "%-24s %-22s %10d %10d %7.3f %12.1f %12.1f\n", tool, file, raw, packed, raw / packed,
                    raw / enc * 1000, raw / dec * 1000 }'
    done
done
