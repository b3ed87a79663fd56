#!/usr/bin/env bash
# Builds the programs in release mode and runs the main job on a self-contained sample: a
# generated calendar of 2,000 events laid out as in a home folder, read the way a backup is read
# (found, staged, verified, fingerprinted), then as the live calendars of a user whose home it is,
# beside the listing of this machine's Time Machine backups and a small folder of .ics files; then
# a later state of the same calendars, compared with a restore point of the earlier one; a search
# across the restore points for a deleted event and what each restore point lost since; the events
# deleted since brought back from the restore point, and one deleted occurrence of a series seen
# in a timeline (also drawn as a page) and brought back; and the removal of everything Morvane keeps.
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

# A folder of .ics files as a calendar sync tool leaves it: one folder per calendar. The weekly
# series has one occurrence moved and one deleted; the last file isn't UTF-8.
archive=build/sample/archive
rm -rf "$archive"
mkdir -p "$archive/work"
printf 'Work' > "$archive/work/displayname"
printf '%s\r\n' BEGIN:VCALENDAR VERSION:2.0 BEGIN:VEVENT UID:standup-1 'SUMMARY:Stand-up' \
    'DTSTART;TZID=Europe/Berlin:20250303T093000' 'DTEND;TZID=Europe/Berlin:20250303T094500' \
    'RRULE:FREQ=WEEKLY;BYDAY=MO,WE' 'EXDATE;TZID=Europe/Berlin:20250310T093000' \
    BEGIN:VALARM ACTION:DISPLAY TRIGGER:-PT10M END:VALARM END:VEVENT \
    BEGIN:VEVENT UID:standup-1 'RECURRENCE-ID;TZID=Europe/Berlin:20250305T093000' 'SUMMARY:Stand-up (moved)' \
    'DTSTART;TZID=Europe/Berlin:20250305T110000' 'DTEND;TZID=Europe/Berlin:20250305T111500' END:VEVENT \
    BEGIN:VEVENT UID:offsite-1 'SUMMARY:Offsite' 'DTSTART;VALUE=DATE:20250320' 'DTEND;VALUE=DATE:20250322' \
    END:VEVENT END:VCALENDAR > "$archive/work/standup.ics"
printf 'BEGIN:VCALENDAR\r\nSUMMARY:Caf\xe9\r\nEND:VCALENDAR\r\n' > "$archive/work/latin1.ics"
run inspect "$archive" --events

# The same database as the live calendars of a user whose home is the sample folder: the local
# event store opens it as found and expands its repeating events.
export HOME="$PWD/$sample"
run calendars
run events --from 2025-03-03 --to 2025-03-05

# The product's point: a restore point of these calendars, then what a user did since, each made
# through the local event store: two occurrences were edited before the restore point was taken;
# since then two events were deleted, two renamed, two occurrences deleted and the two edited
# occurrences edited again. `compare` shows each, with the rowIDs that a restore takes.
earlier=build/sample/earlier.sqlitedb
points=build/sample/restore-points
rm -rf "$points" "$earlier"
mkdir -p "$points"
"$bin/derive-calendar" "$database" "$earlier" 2 7
restorePoint="$points/$(date -d '-1 day' +%Y-%m-%d-%H%M%S).calsnap"
"$bin/lzfse" -encode -i "$earlier" -o "$restorePoint"
run compare "$restorePoint"
run compare "$restorePoint" --json > build/sample/compare.json
head -n 30 build/sample/compare.json
echo "... (the whole comparison is in build/sample/compare.json)"

# The earlier state also as a restore point in the store, where search and the list of backups
# find it: taken while it stands in for the live calendars for a moment.
cp "$database" build/sample/later.sqlitedb
cp "$earlier" "$database"
run snapshot
cp build/sample/later.sqlitedb "$database"

# A user who remembers a word of a deleted event finds it in the restore points, gone from the
# calendars; the list shows what each restore point has lost since.
deleted=$(python3 -c 'import json, sys; text = open(sys.argv[1]).read(); print(json.loads(text[text.index("{"):])["missing"][0]["title"])' \
    build/sample/compare.json)
run search "$deleted" --no-time-machine
run backups --summaries --no-time-machine

# Bringing the deleted events back: `plan` shows what a restore would do, `restore` does it
# (--yes, since nobody is there to answer its question): a repeating event is re-created with its
# deleted and edited occurrences. `compare` then no longer lists them as missing; they count as
# restored before, under their new UIDs.
missing=$("$bin/morvane" compare "$restorePoint" | sed -n '/^Missing$/,/^$/p' | sed -n 's/^  \[\([0-9]*\)\].*/\1/p')
# shellcheck disable=SC2086
run plan "$restorePoint" $missing
# shellcheck disable=SC2086
run restore "$restorePoint" $missing --yes
run compare "$restorePoint" > build/sample/compare-after.txt
head -n 12 build/sample/compare-after.txt
echo "... (the whole comparison is in build/sample/compare-after.txt)"

# The days around an occurrence deleted from a series that still lives, as the restore point held
# them against now (only what differs is shown here), and that one occurrence brought back on its
# own; the timeline then shows it unchanged. The same days, drawn, are in build/sample/timeline.html.
day=$(python3 -c 'import json, sys; text = open(sys.argv[1]).read(); print([o["originalDate"][:10] for o in json.loads(text[text.index("{"):])["occurrenceChanges"] if o["kind"] == "deleted"][0])' \
    build/sample/compare.json)
from=$(date -d "$day -2 days" +%Y-%m-%d)
to=$(date -d "$day +2 days" +%Y-%m-%d)
run timeline "$restorePoint" --from "$from" --to "$to" --html build/sample/timeline.html | grep -v '^= '
occurrence=$("$bin/morvane" timeline "$restorePoint" --from "$from" --to "$to" --json |
    python3 -c 'import json, sys; print([i["id"] for i in json.load(sys.stdin) if i["state"] == "deleted" and "|" in i["id"]][0])')
run restore "$restorePoint" --occurrence "$occurrence" --yes
run timeline "$restorePoint" --from "$from" --to "$to" | tail -n 1

# Everything Morvane keeps is measured and removed: the live calendars stay, and the settings
# file, which now records that copying is off.
run storage
run uninstall --restore-points --yes
echo
echo "What is left in the sample's home folder:"
(cd "$sample" && find . -type f | sort)
