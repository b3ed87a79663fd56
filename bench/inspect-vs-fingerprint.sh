#!/usr/bin/env bash
# `morvane inspect` of a generated calendar of 100,000 events against the content fingerprint
# alone, side by side: wall time with hyperfine over 11 runs each, then the instructions each
# runs (callgrind), which other work on the machine doesn't change. inspect stages a copy of
# the database, fingerprints it, counts the events and reads the calendars and the occurrence
# cache's window. Run from the repository root after
# `cmake --workflow --preset bench`; EVENTS=n for another size.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/bench/bin
work=build/bench/data
events=${EVENTS:-100000}
mkdir -p "$work/home" "$work/tmp"
database=$work/calendar-$events.sqlite
[ -f "$database" ] || "$bin/generate-calendar" "$database" "$events" 42
export HOME=$work/home TMPDIR=$work/tmp

echo "== $events events, $(du -h "$database" | cut -f1); $(uptime)"
hyperfine --warmup 2 --runs 11 --style basic \
    -n "fingerprint" "$bin/fingerprint $database" \
    -n "morvane inspect" "$bin/morvane inspect $database"
for program in "fingerprint" "morvane inspect"; do
    printf '%s: ' "$program"
    valgrind --tool=callgrind --callgrind-out-file=/dev/null $bin/$program "$database" 2>&1 >/dev/null |
        sed -n 's/.*Collected : \([0-9]*\)/\1 instructions/p'
done
