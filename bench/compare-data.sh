# Sourced by the compare and timeline scripts: the backup and live calendars of $events events
# (the generator's database, seed 42, and the same with 1% of the events deleted, 1% renamed and
# 1% of the cached occurrences deleted, derive-calendar --direct, seed 7), made when missing.
# Sets $backup and $home.
work=build/bench/data/compare
mkdir -p "$work"
backup=$work/backup-$events.sqlitedb
home=$work/home-$events
live="$home/Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb"
if [ ! -f "$live" ]; then
    rm -f "$backup"
    "$bin/generate-calendar" "$backup" "$events" 42
    mkdir -p "$(dirname "$live")"
    cp "$backup" "$live"
    "$bin/derive-calendar" --direct "$live" 0.01 7
fi
