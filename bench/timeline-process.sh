#!/usr/bin/env bash
# The whole `morvane timeline` process over one month and one year, for a backup of 100,000
# events against live calendars of 100,000 events: the same data as compare-process.sh (the
# generator's database, seed 42, and the same with 1% of the events deleted, 1% renamed and 1% of
# the cached occurrences deleted, derive-calendar --direct), made there when it is missing. Times
# 5 runs of each with hyperfine, then the peak memory of one. Run from the repository root after
# `cmake --workflow --preset bench`.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/bench/bin
export TZ=America/Los_Angeles

events=${EVENTS:-100000}
source bench/compare-data.sh
for range in "month 2025-03-01 2025-04-01" "year 2025-01-01 2026-01-01"; do
    read -r name from to <<< "$range"
    echo "== $events events, one $name ($from to $to)"
    HOME=$home "$bin/morvane" timeline "$backup" --from "$from" --to "$to" | tail -n 1
    HOME=$home hyperfine --warmup 1 --runs 5 --style basic -n "morvane timeline ($name)" \
        "$bin/morvane timeline $backup --from $from --to $to"
    HOME=$home /usr/bin/time -f "peak memory of morvane timeline ($name): %M KB, %e s" \
        "$bin/morvane" timeline "$backup" --from "$from" --to "$to" > /dev/null
done
