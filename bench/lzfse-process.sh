#!/usr/bin/env bash
# Times whole `lzfse` processes, encode and decode, on the calendar databases: the median of
# RUNS (default 11) runs each, as MB/s of uncompressed data, with the compression ratio. Both the
# wall time and the CPU time (user + system) are given: on a quiet machine they agree, on a
# shared one the wall time also counts waiting for a core. Any tool that takes the same
# arguments is timed the same way, side by side, and checked to round-trip first:
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

# "wall cpu": the median wall and CPU (user + system) seconds of $runs runs of the command.
medians() {
    local TIMEFORMAT='%R %U %S'
    for ((run = 0; run < runs; run++)); do
        { time "$@" > /dev/null; } 2>&1
    done > "$work/times"
    median() { sort -n | awk '{ t[NR] = $1 } END { print t[int((NR + 1) / 2)] }'; }
    echo "$(awk '{ print $1 }' "$work/times" | median) $(awk '{ print $2 + $3 }' "$work/times" | median)"
}

printf '%-10s %-22s %10s %10s %6s %19s %19s\n' tool input bytes compressed ratio \
    "encode MB/s wall/cpu" "decode MB/s wall/cpu"
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
        read -r encodeWall encodeCpu < <(medians "$tool" -encode -i "$file")
        read -r decodeWall decodeCpu < <(medians "$tool" -decode -i "$work/packed")
        awk -v tool="$(basename "$tool")" -v file="$(basename "$file")" -v raw="$raw" -v packed="$packed" \
            -v ew="$encodeWall" -v ec="$encodeCpu" -v dw="$decodeWall" -v dc="$decodeCpu" 'BEGIN {
                printf "%-10s %-22s %10d %10d %6.3f %9.1f /%8.1f %9.1f /%8.1f\n", tool, file, raw, packed,
                    raw / packed, raw / ew / 1e6, raw / ec / 1e6, raw / dw / 1e6, raw / dc / 1e6 }'
    done
done
