# Sourced by the benchmarks that run a server of their own: the morvane binary to time (MORVANE,
# else the release build's), the zone, and a scratch folder `$work` that goes, with the server
# whose process id is `$server`, when the script ends however it ends.
morvane=${MORVANE:-$PWD/build/release/bin/morvane}
export TZ=America/Los_Angeles
work=$(mktemp -d "${TMPDIR:-/tmp}/morvane-$(basename "$0" .sh)-XXXXXX")
server=0
finish() {
    if [ "$server" != 0 ]; then kill "$server" 2>/dev/null || true; wait "$server" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap finish EXIT
