#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# watch.sh MORDEL...: `mordel watch` in a terminal and without one, with traffic on a veth pair, in a
# network namespace of its own.
set -euo pipefail

if [ -z "${MORDEL_WATCH_INSIDE:-}" ]; then
    command -v tmux >/dev/null || { echo "[  SKIPPED ] tmux is missing"; exit 1; }
    own=(-n -m -i)
    [ "$(id -u)" = 0 ] || own=(-r -n -m -i)
    MORDEL_WATCH_INSIDE=1 exec unshare "${own[@]}" "$0" "$@"
fi

mordel=("$@")
work=$(mktemp -d)
tmux=(tmux -f /dev/null -S "$work/tmux")
trap '"${tmux[@]}" kill-server 2>/dev/null || :; kill "${sender:-}" 2>/dev/null || :; rm -rf "$work"' EXIT

fail() { echo "watch.sh: $*" >&2; exit 1; }

# eventually COMMAND...: whether it succeeds within two minutes, which only a hang takes
eventually()
{
    for _ in $(seq 600); do
        if "$@"; then return; fi
        sleep 0.2
    done
    return 1
}

# sampled COMMAND...: on a busy machine a second may pass in which nothing is sent, or the monitor
# has not sampled by the time that a sample is printed. Then it is watched again.
sampled()
{
    for _ in 1 2 3 4 5; do
        if "$@"; then return; fi
    done
    return 1
}

# No neighbour discovery among the packets
echo 1 >/proc/sys/net/ipv6/conf/default/disable_ipv6
ip link add left type veth peer name right
ip addr add 10.9.9.1/24 dev left
ip link set left up
ip link set right up
ip neigh add 10.9.9.2 lladdr 02:00:00:00:00:02 dev left

# 1000 bytes of UDP ten times a second: some 83 kbit/s with the headers
text=$(printf '%01000d' 0)
while :; do
    printf %s "$text" >/dev/udp/10.9.9.2/9
    sleep 0.1
done &
sender=$!

# ---- Without a terminal: a line for each interface and sample

three_samples()
{
    "${mordel[@]}" watch --count 3 left right >"$work/lines" || fail "watch failed"
    [ "$(wc -l <"$work/lines")" = 6 ] &&
        [ "$(grep -cE '^left in 0bit out [1-9][0-9.]*kbit$' "$work/lines")" = 3 ] &&
        [ "$(grep -cE '^right in [1-9][0-9.]*kbit out 0bit$' "$work/lines")" = 3 ]
}
sampled three_samples || fail "not two lines a sample: $(cat "$work/lines")"

one_as_json()
{
    "${mordel[@]}" watch --count 1 --json left >"$work/json" || fail "watch failed"
    [ "$(wc -l <"$work/json")" = 1 ] &&
        grep -qE '^\{"name":"left","in_bit":0,"out_bit":[1-9][0-9]+\}$' "$work/json"
}
sampled one_as_json || fail "$(cat "$work/json")"

# What a reader of the output leaves unread is no failure.
"${mordel[@]}" watch left | head -n 1 >"$work/one"
[ "$(wc -l <"$work/one")" = 1 ] || fail "no line before the pipe closed"

if "${mordel[@]}" watch nothere 2>"$work/said"; then fail "an unknown interface was watched"; fi
grep -q 'there is no interface "nothere"' "$work/said" || fail "$(cat "$work/said")"

# ---- In a terminal: a picture, q to quit, the terminal as it was

"${tmux[@]}" new-session -d -x 100 -y 20 "LC_ALL=C.UTF-8 ${mordel[*]@Q} watch left right; echo status \$?; sleep 1000"
shows() # FILE PATTERN
{
    "${tmux[@]}" capture-pane -p >"$1"
    grep -qE "$2" "$1"
}
eventually shows "$work/picture" '^  out +[0-9.]+kbit  peak +[0-9.]+kbit  [▁▂▃▄▅▆▇█]{3,}' ||
    fail "no history was drawn: $(cat "$work/picture")"
cat "$work/picture"
for text in '^left' '^right' 'q quits'; do
    grep -q "$text" "$work/picture" || fail "the picture lacks $text"
done
"${tmux[@]}" send-keys q
eventually shows "$work/after" '^status 0$' || fail "q did not quit: $(cat "$work/after")"
if grep -q 'q quits' "$work/after"; then fail "the picture stayed on the terminal"; fi
[ -z "$(ipcs -s | grep -E '^0x' || :)" ] || fail "a semaphore is left: $(ipcs -s)"

# An interface that goes is watched no more.
: >"$work/lines"
"${mordel[@]}" watch left >"$work/lines" 2>"$work/said" &
watcher=$!
eventually grep -q '^left ' "$work/lines" || fail "nothing was watched"
kill "$sender"
ip link del left
status=0
wait "$watcher" || status=$?
[ "$status" = 1 ] || fail "status $status after the interface has gone"
grep -q 'nothing is left to watch' "$work/said" || fail "$(cat "$work/said")"
