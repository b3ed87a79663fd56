#!/usr/bin/env bash
# Checks what is installed beside the programs in $1: the manual pages render without a warning,
# the completion scripts parse in their shells and bash's completes from the real program, and the
# desktop entry is valid. $2 is the build's dist/ folder, $3 the sources' dist/.
set -euo pipefail
bin=$1 generated=$2 dist=$3
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
fail() {
    echo "check-docs: $*" >&2
    exit 1
}

for page in "$generated/man/morvane.1" "$dist/man/MorvaneHelper.1" "$dist/man/lzfse.1"; do
    warnings=$(groff -ww -man -Tutf8 -z "$page" 2>&1) || fail "groff fails on $page"
    [ -z "$warnings" ] || fail "groff warns about $page: $warnings"
    warnings=$(MANWIDTH=80 man -l "$page" 2>&1 >/dev/null) || fail "man -l fails on $page"
    [ -z "$warnings" ] || fail "man -l warns about $page: $warnings"
done

bash -n "$generated/completions/morvane.bash" || fail "the bash completion doesn't parse"
zsh -n "$generated/completions/_morvane" || fail "the zsh completion doesn't parse"
fish --no-execute "$generated/completions/morvane.fish" || fail "the fish completion doesn't parse"
desktop-file-validate "$dist/desktop/com.quillfen.morvane.TimeMachineHelper.desktop" || fail "the desktop entry isn't valid"

# The completion asks the program for calendars and backups: give it a home with a restore point.
export HOME=$home TMPDIR=$home PATH=$bin:$PATH
morvane snapshot >/dev/null
# shellcheck source=/dev/null
source "$generated/completions/morvane.bash"
label=$(morvane calendars --labels | head -n 1)
backup=$(morvane backups --ids --no-time-machine | head -n 1)
if [ -z "$label" ] || [ -z "$backup" ]; then
    fail "the program lists no calendar or no restore point"
fi

# What is typed, and the completions expected, one per line.
cases=(
    "morvane sn|snapshot"
    "morvane copies en|enable"
    "morvane copies enable --f|--folder"
    "morvane --color a|auto"$'\n'"always"
    "morvane compare --color n|never"
    "morvane plan x 1 --into ${label:0:3}|$(printf '%q' "$label")"
    "morvane compare |$(printf '%q' "$backup")"
    "morvane timeline ${backup%%:*}:|$(printf '%q' "${backup#*:}")"
    "morvane timeline $(printf '%q' "$backup") |--help"$'\n'"--from"$'\n'"--to"$'\n'"--json"$'\n'"--html"
    "morvane restore x --yes --o|--occurrence"
)
for row in "${cases[@]}"; do
    typed=${row%%|*} expected=${row#*|}
    COMP_LINE=$typed COMP_POINT=${#typed}
    read -ra COMP_WORDS <<<"$typed"
    COMP_CWORD=${#COMP_WORDS[@]}
    _morvane
    got=$(printf '%s\n' "${COMPREPLY[@]}")
    [ "$got" = "$expected" ] || fail "completing '$typed' gave '$got', not '$expected'"
done
echo "check-docs: manual pages, completions and desktop entry are fine"
