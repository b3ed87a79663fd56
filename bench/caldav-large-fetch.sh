#!/usr/bin/env bash
# Peak memory of reading a large CalDAV calendar: a scripted loopback server (Python's
# http.server) answers discovery with one calendar and its REPORT with a generated multistatus of
# about SIZE_MB megabytes, streamed from a file: EVENTS events, each with a long description so
# that the answer is mostly event text. `morvane events` over one day fetches the whole calendar
# (the store keeps every event read, not the resources' texts) and expands little; `morvane
# snapshot` also builds and writes the restore point, and `morvane compare` reads it back against
# the calendar. /usr/bin/time gives each one's peak
# resident memory, to set against the answer's size.
#
# Run after `cmake --preset release && cmake --build --preset release --target morvane` (or set
# MORVANE). Arguments: [SIZE_MB] [EVENTS].
set -euo pipefail
cd "$(dirname "$0")/.."
size=${1:-200}
events=${2:-20000}
source bench/server-work.sh

python3 - "$work/report.xml" "$size" "$events" <<'EOF'
import sys
path, size, count = sys.argv[1], int(sys.argv[2]) << 20, int(sys.argv[3])
padding = max(size // count - 700, 0)
with open(path, "w", newline="") as out:
    out.write('<?xml version="1.0"?><D:multistatus xmlns:D="DAV:" xmlns:C="urn:ietf:params:xml:ns:caldav">')
    for i in range(count):
        # A description folded at 75 octets, as iCalendar writes long lines.
        text = ("Notes %d " % i + "lorem ipsum dolor sit amet " * (padding // 27 + 1))[:padding]
        folded = "\r\n ".join(text[j:j + 70] for j in range(0, len(text), 70))
        day = i % 365
        event = ("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Morvane bench//EN\r\nBEGIN:VEVENT\r\nUID:large-%d\r\n"
                 "DTSTAMP:20250101T000000Z\r\nSUMMARY:Event %d &amp; more\r\nDTSTART:2025%02d%02dT%02d0000Z\r\n"
                 "DURATION:PT1H\r\nDESCRIPTION:%s\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n"
                 % (i, i, day // 28 % 12 + 1, day % 28 + 1, i % 10 + 8, folded))
        out.write('<D:response><D:href>/cal/large-%d.ics</D:href><D:propstat><D:prop><D:getetag>"%d"</D:getetag>'
                  '<C:calendar-data>%s</C:calendar-data></D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat>'
                  '</D:response>' % (i, i, event.replace("\r", "&#13;")))
    out.write("</D:multistatus>")
EOF

cat > "$work/server.py" <<'EOF'
import http.server, os, shutil, socketserver, sys

report = sys.argv[1]
home = ('<?xml version="1.0"?><D:multistatus xmlns:D="DAV:" xmlns:C="urn:ietf:params:xml:ns:caldav">'
        '<D:response><D:href>/</D:href><D:propstat><D:prop><C:calendar-home-set><D:href>/</D:href>'
        '</C:calendar-home-set></D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>'
        '</D:multistatus>').encode()
listing = ('<?xml version="1.0"?><D:multistatus xmlns:D="DAV:" xmlns:C="urn:ietf:params:xml:ns:caldav">'
           '<D:response><D:href>/cal/</D:href><D:propstat><D:prop><D:resourcetype><D:collection/><C:calendar/>'
           '</D:resourcetype><D:displayname>Large</D:displayname></D:prop><D:status>HTTP/1.1 200 OK</D:status>'
           '</D:propstat></D:response></D:multistatus>').encode()

class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def answer(self, body=None, path=None):
        self.rfile.read(int(self.headers.get("Content-Length", 0)))
        self.send_response(207)
        self.send_header("Content-Type", "application/xml")
        self.send_header("Content-Length", str(len(body) if body is not None else os.path.getsize(path)))
        self.end_headers()
        if body is not None:
            self.wfile.write(body)
        else:
            with open(path, "rb") as source:
                shutil.copyfileobj(source, self.wfile, 1 << 16)

    def do_PROPFIND(self):
        self.answer(body=listing if self.headers.get("Depth") == "1" else home)

    def do_REPORT(self):
        self.answer(path=report)

    def log_message(self, *arguments):
        pass

with socketserver.TCPServer(("127.0.0.1", 0), Handler) as server:
    print(server.server_address[1], flush=True)
    server.serve_forever()
EOF
python3 "$work/server.py" "$work/report.xml" > "$work/port" &
server=$!
for _ in $(seq 50); do [ -s "$work/port" ] && break; sleep 0.1; done
port=$(cat "$work/port")

export HOME=$work/home
mkdir -p "$HOME"
printf 'unused\n' > "$work/password"
chmod 600 "$work/password"
"$morvane" accounts add caldav "http://127.0.0.1:$port/" --user bench --name large --password-file "$work/password" > /dev/null
"$morvane" accounts use large > /dev/null

echo "answer: $(($(stat -c %s "$work/report.xml") >> 20)) MB, $events events"
measure() { # LABEL COMMAND...
    local label=$1 wall peak
    shift
    /usr/bin/time -f "%e %M" -o "$work/time" "$morvane" "$@" > /dev/null
    read -r wall peak < "$work/time"
    printf 'morvane %-40s %6.1f s, peak memory %d MB\n' "$label" "$wall" $((peak >> 10))
}
measure "events --from 2025-01-01 --to 2025-01-02" events --from 2025-01-01 --to 2025-01-02
measure snapshot snapshot
backup=$("$morvane" backups --json --no-time-machine | python3 -c 'import json, sys; print(json.load(sys.stdin)["sources"][-1]["id"])')
measure "compare (against the restore point)" compare "$backup"
