#!/usr/bin/env bash
# The content fingerprint against the sqlite3 shell running the same six statements piped into
# sha256sum, on generated databases of 10,000 and 100,000 events, in one run; then the peak
# memory of the fingerprint at both sizes. Run from the repository root after
# `cmake --workflow --preset bench`.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/bench/bin
work=build/bench/data
mkdir -p "$work"

statements="SELECT ROWID, summary, start_date, end_date, start_tz, all_day, calendar_id, unique_identifier, description, url, location_id, orig_item_id, orig_date, hidden FROM CalendarItem ORDER BY ROWID;
SELECT owner_id, frequency, interval, count, end_date, specifier FROM Recurrence ORDER BY ROWID;
SELECT owner_id, date FROM ExceptionDate ORDER BY ROWID;
SELECT calendaritem_owner_id, trigger_interval, trigger_date, default_alarm, disabled FROM Alarm ORDER BY ROWID;
SELECT ROWID, title, address FROM Location ORDER BY ROWID;
SELECT ROWID, title, UUID FROM Calendar ORDER BY ROWID;"
printf '%s\n' "$statements" > "$work/fingerprint.sql"

for events in 10000 100000; do
    database=$work/calendar-$events.sqlite
    [ -f "$database" ] || "$bin/generate-calendar" "$database" "$events" 42
    echo "== $events events, $(du -h "$database" | cut -f1)"
    hyperfine --warmup 2 --runs 11 --style basic \
        -n "morvane fingerprint" "$bin/fingerprint $database" \
        -n "sqlite3 | sha256sum" "sqlite3 -batch -noheader -separator \$'\\x1f' -nullvalue '∅' $database < $work/fingerprint.sql | sha256sum"
    /usr/bin/time -f "peak memory of the fingerprint: %M KB" "$bin/fingerprint" "$database" > /dev/null
done
