#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# watch_more.sh MORDEL...: what `mordel watch` does when one of two interfaces goes, without a
# semaphore, at the edges of its options, and in a terminal without a locale; in namespaces of its own.
set -euo pipefail

if [ -z "${MORDEL_WATCH_INSIDE:-}" ]; then
    command -v tmux >/dev/null || { echo "[  SKIPPED ] tmux is missing"; exit 1; }
    own=(-n -m -i)
    [ "$(id -u)" = 0 ] || own=(-r -n -m -i)
    MORDEL_WATCH_INSIDE=1 exec unshare "${own[@]}" "$0" "$@"
fi

mordel=("$@")
work=$(mktemp -d)
watcher=
tmux=(false)
# A server of its own for each terminal: one that was told to end may still be there.
terminal() { tmux=(tmux -u -f /dev/null -S "$work/tmux.$1"); }
trap '"${tmux[@]}" kill-server 2>/dev/null || :; [ -z "$watcher" ] || kill "$watcher" 2>/dev/null || :; rm -rf "$work"' EXIT

fail() { echo "watch_more.sh: $*" >&2; exit 1; }

# A minute at most until a command succeeds
eventually()
{
    for _ in $(seq 600); do
        "$@" && return
        sleep 0.1
    done
    return 1
}

# run STATUS ARG...: what the program writes is in `out` and `err`.
run()
{
    local expected=$1 status=0
    shift
    "${mordel[@]}" "$@" >"$work/out" 2>"$work/err" || status=$?
    [ "$status" = "$expected" ] || fail "mordel $*: status $status, not $expected: $(cat "$work/err")"
}

ip link set lo up
ip link add left type veth peer name left-peer
ip link add other type veth peer name other-peer
ip link set left up
ip link set other up

# ---- The edges of --interval and --count

# Of an interface that is not there: where a bad one is taken, that is said at once.
for bad in 0 256 -1 1.5 1s x "" 4294967297; do
    run 2 watch --interval "$bad" nothere
    [ ! -s "$work/out" ] || fail "--interval '$bad': something on standard output"
    grep -q -- --interval "$work/err" || fail "--interval '$bad': not said: $(cat "$work/err")"
done
for bad in 0 4294967296 -1 1.5 x ""; do
    run 2 watch --count "$bad" nothere
    grep -q -- --count "$work/err" || fail "--count '$bad': not said: $(cat "$work/err")"
done
run 0 watch --interval 1 --count 1 lo
# None where the monitor's thread got no processor for a second
[ "$(wc -l <"$work/out")" -le 1 ] || fail "--count 1: $(cat "$work/out")"

# The greatest are taken: watch runs until it is told to end.
at_work() { ipcs -s | grep -qE '^0x'; }
for option in "--interval 255" "--count 4294967295"; do
    # shellcheck disable=SC2086  # two arguments
    "${mordel[@]}" watch $option lo >"$work/out" 2>"$work/err" &
    watcher=$!
    eventually at_work || fail "$option: does not begin: $(cat "$work/err")"
    if [ "$option" = "--interval 255" ]; then
        sleep 2
        [ ! -s "$work/out" ] || fail "$option: a line after two seconds"
    else
        eventually test -s "$work/out" || fail "$option: no line"
    fi
    kill -TERM "$watcher"
    status=0
    wait "$watcher" || status=$?
    watcher=
    [ "$status" = 0 ] || fail "$option: status $status: $(cat "$work/err")"
    [ ! -s "$work/err" ] || fail "$option: said $(cat "$work/err")"
done

# That of status is 0.1 to 60 seconds, fractions too.
for bad in 0 0.09 60.01 61 -1 1s x "" nan inf 1e1 .5; do
    run 2 status --interval "$bad" nothere
    grep -q "an interval is 0.1 to 60 seconds" "$work/err" || fail "status --interval '$bad': not said"
done
for good in 0.1 1 2.5 60 60.0; do
    run 1 status --interval "$good" nothere
    ! grep -q -- --interval "$work/err" || fail "status --interval $good: $(cat "$work/err")"
done

# ---- One of two goes: the other is watched on; then that goes too.

lines_of() { grep -c "$1" "$work/lines" || :; }
more_of() { [ "$(lines_of "$1")" -ge "$2" ]; }
goes()
{
    local name=$1 stays=$2 seen
    shift 2
    "${mordel[@]}" watch "$@" left other >"$work/lines" 2>"$work/err" &
    watcher=$!
    eventually more_of "$name" 1 || fail "no line of $name: $(cat "$work/err")"
    eventually more_of "$stays" 1 || fail "no line of $stays: $(cat "$work/err")"
    ip link del "$name"
    # The sample that was being printed may still hold it.
    seen=$(lines_of "$stays")
    eventually more_of "$stays" $((seen + 1)) || fail "$stays is not watched on: $(cat "$work/err")"
    seen=$(lines_of "$name")
    eventually more_of "$stays" $(($(lines_of "$stays") + 2)) || fail "$stays is not watched on"
    [ "$(lines_of "$name")" = "$seen" ] || fail "$name has gone and has lines: $(cat "$work/lines")"
    [ ! -s "$work/err" ] || fail "said though $stays is left: $(cat "$work/err")"
    kill -0 "$watcher" || fail "ended though $stays is left"
}
goes left other
ip link del other
status=0
wait "$watcher" || status=$?
watcher=
[ "$status" = 1 ] || fail "status $status after both have gone"
[ "$(cat "$work/err")" = "mordel: nothing is left to watch" ] || fail "said $(cat "$work/err")"
! at_work || fail "a semaphore is left: $(ipcs -s)"

# The same from the other end of the list, as JSON
ip link add left type veth peer name left-peer
ip link add other type veth peer name other-peer
goes other left --json
[ "$(grep -vcE '^\{"name":"(left|other)","in_bit":[0-9]+,"out_bit":[0-9]+\}$' "$work/lines" || :)" = 0 ] ||
    fail "not an object a line: $(cat "$work/lines")"
kill -TERM "$watcher"
wait "$watcher" || fail "status $? after SIGTERM"
watcher=

# ---- In a terminal: signs without a locale, blocks with UTF-8, and a word where one has gone

ip link add other type veth peer name other-peer
shows() { "${tmux[@]}" capture-pane -p >"$work/picture" && grep -qE "$1" "$work/picture"; }
picture()
{
    terminal "$2"
    "${tmux[@]}" new-session -d -x 100 -y 20 \
        "env -u LC_ALL -u LC_CTYPE -u LANG $1 ${mordel[*]@Q} watch left other; sleep 600"
    eventually shows "^  out +0bit  peak +0bit  $2{2,}\$" ||
        fail "with '$1' no history of $2: $(cat "$work/picture")"
}
export LC_ALL=C.UTF-8 # of grep and of what tmux prints
picture "" _
! LC_ALL=C grep -q '[^ -~]' "$work/picture" || fail "more than ASCII: $(cat "$work/picture")"
"${tmux[@]}" kill-server
picture LANG=C.UTF-8 ▁
ip link del left
eventually shows '^  gone$' || fail "not said that one has gone: $(cat "$work/picture")"
for name in left other; do
    eventually shows "^$name\$" || fail "the name $name has gone: $(cat "$work/picture")"
done
[ "$(grep -c '^  gone$' "$work/picture")" = 1 ] || fail "both have gone: $(cat "$work/picture")"
"${tmux[@]}" kill-server
unset LC_ALL

# ---- No semaphore to be had

# The last of the four is how many sets there may be.
if ! echo "32000 1024000000 500 0" 2>/dev/null >/proc/sys/kernel/sem; then
    echo "[  SKIPPED ] kernel.sem cannot be set here"
    exit 1
fi
run 1 watch lo
[ ! -s "$work/out" ] || fail "without a semaphore: something on standard output"
[ "$(cat "$work/err")" = "mordel: no semaphore for the monitor: No space left on device" ] ||
    fail "without a semaphore: said $(cat "$work/err")"
