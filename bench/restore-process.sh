#!/usr/bin/env bash
# The whole `morvane restore` process: 1,000 picked events (a fifth of them series with deleted
# or edited occurrences) from a generated backup of 100,000 events (seed 42) into live calendars
# of the same size from which they were removed. `restore-steps` makes the data (kept in the
# temporary folder) and times the steps in-process; this then times the command itself and its
# peak memory, from the same live state. Run from the repository root after
# `cmake --workflow --preset bench`. Arguments: [EVENTS] [PICKED].
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/bench/bin
events=${1:-100000}
picked=${2:-1000}
export TZ=America/Los_Angeles
folder=${TMPDIR:-/tmp}/morvane-restore-steps-$events-$picked

"$bin/restore-steps" "$events" "$picked"
export HOME=$folder/home
live="$HOME/Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb"
rm -f "$live-wal" "$live-shm" "$live-journal"
cp "$folder/live-start.sqlitedb" "$live"
# shellcheck disable=SC2046
/usr/bin/time -f "morvane restore, whole process: %e s, %U s user, %S s system, peak memory %M KB" \
    "$bin/morvane" restore "$folder/backup.sqlitedb" $(cat "$folder/ids.txt") --yes > "$folder/restore.txt"
grep -c ': Restored$' "$folder/restore.txt" | sed 's/$/ restored/'
