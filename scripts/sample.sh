#!/usr/bin/env bash
# Builds the programs in release mode and runs the main job on a self-contained sample: a
# generated calendar of 2,000 events laid out as in a home folder, read the way a backup is read
# (found, staged, verified, fingerprinted), then as the live calendars of a user whose home it is,
# beside the listing of this machine's Time Machine backups.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --workflow --preset release
bin=build/release/bin
sample=build/sample/home
rm -rf "$sample"
database="$sample/Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb"
mkdir -p "$(dirname "$database")"
"$bin/generate-calendar" "$database" 2000 7

run() {
    echo
    echo "\$ morvane $*"
    "$bin/morvane" "$@"
}
run backups
run backups --json
run inspect "$sample"
run inspect "$sample" --events --json > build/sample/inspect.json
head -n 40 build/sample/inspect.json
echo "... (the whole report is in build/sample/inspect.json)"

# The same database as the live calendars of a user whose home is the sample folder: the local
# event store opens it as found and expands its repeating events.
export HOME="$PWD/$sample"
run calendars
run events --from 2025-03-03 --to 2025-03-05
