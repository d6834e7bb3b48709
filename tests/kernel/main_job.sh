#!/bin/sh
# SPDX-License-Identifier: MIT
# main_job.sh ROUTER GOLDEN: the home router's scripts are those of GOLDEN, and a real kernel takes
# them. MORDEL_BLESS=1 rewrites GOLDEN instead of comparing with it. EMULATOR: the command that runs
# programs of another machine, if ROUTER is one.
set -eu

router=$1 golden=$2
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# shellcheck disable=SC2086  # a command and its options
"$here/../private" ${EMULATOR:-} "$router" "$work" >/dev/null

[ -z "${MORDEL_BLESS:-}" ] || cp "$work"/* "$golden/"
diff -r "$golden" "$work"

status=0
"$here/uml-run" "$here/demo" "$work" >"$work/kernel" 2>"$work/said" || status=$?
cat "$work/said" >&2
if [ "$status" = 77 ]; then
    echo "[  SKIPPED ] no user-mode Linux"
    exit 1
fi
[ "$status" = 0 ]

# count NUMBER PATTERN: so many lines of what the kernel shows are like that
count()
{
    found=$(grep -cE "$2" "$work/kernel") || true
    [ "$found" = "$1" ] || { echo "$found lines, not $1, of: $2" >&2 && exit 1; }
}
count 7 '^class htb 1:'      # 1 to 3, and voice, games, web, bulk
count 4 '^class hfsc 1:[0-9]' # 1 to 3, and voice
count 3 '^class prio 1:'
count 11 '^filter .* handle 0x(2|3|10|11|12|13) ' # leaves: six of lan0, three of wan0, two of wifi0
count 7 '^-A QOS_lan0 .* -j MARK '  # six rules, one of them for TCP and UDP
count 8 '^-A QOS_lan0_AUTO '
count 1 '^-A QOS_wifi0 .* -j MARK '
count 6 '^-A (FORWARD|OUTPUT) '
