#!/usr/bin/env bash
# A CalDAV account end to end, through the `morvane` program, on Debian's radicale on a free
# loopback port: a restore point of an account of EVENTS events (`snapshot`), `compare` against it
# after DELETED events were deleted on the server, and `restore` of those events. Each step prints
# its wall time and the CPU time of our process (from /usr/bin/time) and of radicale's (from
# /proc/PID/stat), and our peak memory.
#
# The calendar is written straight into radicale's storage folder, one resource per event: four
# in five single events, one in five a weekly series of 20 with an exception date; half zoned
# (Europe/Berlin), half floating. Radicale reads it once before the timed steps.
#
# Run from anywhere after `cmake --preset release && cmake --build --preset release --target morvane`
# (or set MORVANE to a morvane binary). Arguments: [EVENTS] [DELETED].
set -euo pipefail
cd "$(dirname "$0")/.."
events=${1:-10000}
deleted=${2:-100}
source bench/server-work.sh

port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
origin=http://127.0.0.1:$port
printf 'ann:correct horse\nadmin:admin password\n' > "$work/users"
printf '[admin]\nuser: admin\ncollection: .*\npermissions: RrWw\n[principal]\nuser: .+\ncollection: {user}\npermissions: RW\n[calendars]\nuser: .+\ncollection: {user}/[^/]+\npermissions: rw\n[root]\nuser: .+\ncollection:\npermissions: R\n' > "$work/rights"
cat > "$work/config" <<EOF
[server]
hosts = 127.0.0.1:$port
[auth]
type = htpasswd
htpasswd_filename = $work/users
htpasswd_encryption = plain
[rights]
type = from_file
file = $work/rights
[storage]
filesystem_folder = $work/storage
[web]
type = none
[logging]
level = error
EOF

python3 - "$work/storage/collection-root/ann" "$events" <<'EOF'
import datetime, json, os, sys
folder, count = sys.argv[1], int(sys.argv[2])
calendar = os.path.join(folder, "bench")
os.makedirs(calendar)
with open(os.path.join(folder, ".Radicale.props"), "w") as props:
    json.dump({}, props)
with open(os.path.join(calendar, ".Radicale.props"), "w") as props:
    json.dump({"tag": "VCALENDAR", "D:displayname": "Bench", "C:supported-calendar-component-set": "VEVENT"}, props)
zone = ("BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\nBEGIN:DAYLIGHT\r\nTZOFFSETFROM:+0100\r\nTZOFFSETTO:+0200\r\n"
        "DTSTART:19810329T020000\r\nRRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU\r\nEND:DAYLIGHT\r\nBEGIN:STANDARD\r\n"
        "TZOFFSETFROM:+0200\r\nTZOFFSETTO:+0100\r\nDTSTART:19961027T030000\r\nRRULE:FREQ=YEARLY;BYMONTH=10;BYDAY=-1SU\r\n"
        "END:STANDARD\r\nEND:VTIMEZONE\r\n")
first = datetime.datetime(2023, 1, 1)
for i in range(count):
    start = first + datetime.timedelta(days=i % 1000, hours=i % 9 + 8)
    zoned = i % 2 == 0
    tzid = ";TZID=Europe/Berlin" if zoned else ""
    lines = ["BEGIN:VEVENT", "UID:bench-%d" % i, "DTSTAMP:20250101T000000Z", "SUMMARY:Event %d" % i,
             "LOCATION:Room %d" % (i % 17), "DTSTART%s:%s" % (tzid, start.strftime("%Y%m%dT%H%M%S")), "DURATION:PT1H"]
    if i % 5 == 0:
        skipped = start + datetime.timedelta(weeks=2)
        lines += ["RRULE:FREQ=WEEKLY;COUNT=20", "EXDATE%s:%s" % (tzid, skipped.strftime("%Y%m%dT%H%M%S"))]
    lines.append("END:VEVENT")
    text = ("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Morvane bench//EN\r\n" + (zone if zoned else "") +
            "\r\n".join(lines) + "\r\nEND:VCALENDAR\r\n")
    with open(os.path.join(calendar, "bench-%d.ics" % i), "w", newline="") as resource:
        resource.write(text)
EOF

radicale --config "$work/config" > "$work/radicale.log" 2>&1 &
server=$!
for _ in $(seq 100); do
    curl -s -o /dev/null "$origin/" && break
    sleep 0.2
done
# Radicale fills its own cache of the items on their first read: paid here, once.
curl -s -o /dev/null -u "admin:admin password" "$origin/ann/bench/"

cpu() { # CPU seconds of radicale so far
    awk '{ sub(/.*\) /, ""); print ($12 + $13) / '"$(getconf CLK_TCK)"' }' "/proc/$server/stat"
}
step() { # NAME COMMAND...: runs the command, prints its figures; its output goes to $work/NAME.out
    local name=$1 before after
    shift
    before=$(cpu)
    /usr/bin/time -f "%e %U %S %M" -o "$work/$name.time" "$@" > "$work/$name.out"
    after=$(cpu)
    read -r wall user system peak < "$work/$name.time"
    awk -v n="$name" -v w="$wall" -v u="$user" -v s="$system" -v m="$peak" -v b="$before" -v a="$after" \
        'BEGIN { r = a - b; printf "%-8s %6.2f s wall, ours %5.2f s CPU (peak %d MB), radicale %5.2f s CPU (%2.0f%% of the CPU time)\n",
                 n, w, u + s, m / 1024, r, 100 * r / (u + s + r) }'
}

export HOME=$work/home
mkdir -p "$HOME"
printf 'correct horse\n' > "$work/password"
chmod 600 "$work/password"
"$morvane" accounts add caldav "$origin/" --user ann --name bench --password-file "$work/password" > /dev/null
"$morvane" accounts use bench > /dev/null

step snapshot "$morvane" snapshot
sed 's/^/  /' "$work/snapshot.out"
backup=$("$morvane" backups --json --no-time-machine | python3 -c 'import json, sys; print(json.load(sys.stdin)["sources"][-1]["id"])')
echo "  backup $backup"

# Deleted behind Morvane's back: every hundredth event, as far as DELETED go.
stride=$((events / deleted))
for i in $(seq 0 $((deleted - 1))); do
    curl -s -o /dev/null -u "admin:admin password" -X DELETE "$origin/ann/bench/bench-$((i * stride)).ics"
done

step compare "$morvane" compare "$backup" --json
rows=$(python3 -c 'import json, sys; print(" ".join(str(e["id"]) for e in json.load(open(sys.argv[1]))["missing"]))' "$work/compare.out")
echo "  $(echo "$rows" | wc -w) missing"
# shellcheck disable=SC2086
step restore "$morvane" restore "$backup" $rows --yes
echo "  $(grep -c ': Restored$' "$work/restore.out") restored"
