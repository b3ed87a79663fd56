#!/usr/bin/env bash
# The whole `morvane compare` process on generated calendars of 10,000 and 100,000 events: the
# backup is the generator's database (seed 42), the live calendars in a home folder of their own
# the same with 1% of the events deleted, 1% renamed and 1% of the cached occurrences deleted,
# written straight into the file (derive-calendar --direct). Times 5 runs with hyperfine, then
# the peak memory of one. Run from the repository root after `cmake --workflow --preset bench`.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/bench/bin
export TZ=America/Los_Angeles

for events in 10000 100000; do
    source bench/compare-data.sh
    echo "== $events events"
    HOME=$home "$bin/morvane" compare "$backup" | sed -n 2,3p
    HOME=$home hyperfine --warmup 1 --runs 5 --style basic -n "morvane compare ($events)" \
        "$bin/morvane compare $backup"
    HOME=$home /usr/bin/time -f "peak memory of morvane compare: %M KB, %e s" \
        "$bin/morvane" compare "$backup" > /dev/null
done
