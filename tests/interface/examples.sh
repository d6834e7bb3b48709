#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# examples.sh ECHO_SERVICE BANDWIDTH: the two in namespaces of their own, against each other.
# EMULATOR: the command that runs programs of another machine, if these are.
set -euo pipefail

read -ra emulator <<<"${EMULATOR:-}"

if [ "${3:-}" != inside ]; then
    own=(-mni)
    [ "$(id -u)" = 0 ] || own=(-rmni)
    exec unshare "${own[@]}" bash "$0" "$1" "$2" inside
fi
mount -t tmpfs tmpfs /var/tmp
touch /var/tmp/.console
mount --bind /var/tmp/.console /dev/console
ip link set lo up
cd /var/tmp

fail()
{
    echo "$*" >&2
    cat said rates >&2 || true
    exit 1
}

# wait_for PATTERN FILE [COUNT]: until so many lines match, for two minutes at most
wait_for()
{
    for _ in $(seq 1200); do
        [ "$(grep -cE "$1" "$2" 2>/dev/null)" -ge "${3:-1}" ] && return
        sleep 0.1
    done
    fail "no $1 in $2"
}

few=20 # descriptors

"${emulator[@]}" "$1" 127.0.0.1 7007 >said &
service=$!
trap 'kill "$service" 2>/dev/null || true' EXIT
wait_for '^listening on 127.0.0.1:7007$' said

# Two clients at once, each with its own bytes
exec 3<>/dev/tcp/127.0.0.1/7007 4<>/dev/tcp/127.0.0.1/7007
echo one >&3
echo two >&4
read -r -t 120 answer <&4 || fail "the second client got no answer"
[ "$answer" = two ] || fail "the second client got $answer"
read -r -t 120 answer <&3 || fail "the first client got no answer"
[ "$answer" = one ] || fail "the first client got $answer"
exec 3>&- 4>&-
wait_for ': closed$' said 2
[ "$(grep -cE '^[0-9]+: from 127\.0\.0\.1:[0-9]+$' said)" = 2 ] || fail "not two clients"
[ "$(grep -c ': closed$' said)" = 2 ] || fail "not two clients closed"

# More clients than descriptors: those who do not fit wait until others have left.
(
    ulimit -n "$few"
    exec "${emulator[@]}" "$1" 127.0.0.1 7008 >crowd
) &
small=$!
trap 'kill "$service" "$small" 2>/dev/null || true' EXIT
wait_for '^listening on 127.0.0.1:7008$' crowd
clients=()
for n in $(seq $((2 * few))); do
    exec {fd}<>/dev/tcp/127.0.0.1/7008
    echo "client $n" >&"$fd"
    clients+=("$fd")
done
for n in $(seq $((2 * few))); do
    fd=${clients[n - 1]}
    read -r -t 120 answer <&"$fd" || fail "client $n of $((2 * few)) got no answer"
    [ "$answer" = "client $n" ] || fail "client $n got $answer"
    exec {fd}>&-
done
kill -TERM "$small"
wait "$small" || fail "the service with few descriptors failed"
[ "$(grep -c ': from ' crowd)" = $((2 * few)) ] || fail "not every client was accepted once"

# Something to measure while the printer runs: a packet each 10 ms. On a busy machine the packets of a
# whole period may be late; then once more.
for _ in $(seq 10); do
    "${emulator[@]}" "$2" 1 2 lo nowhere >rates &
    printer=$!
    while kill -0 "$printer" 2>/dev/null; do
        printf '%01000d' 0 >/dev/udp/127.0.0.1/9 || true
        sleep 0.01
    done
    wait "$printer" || fail "the printer failed"
    [ "$(wc -l <rates)" = 4 ] || fail "not two lines per period"
    measured=$(grep -cE '^lo {13} rx +[1-9][0-9]*\.[0-9] kbit/s  tx +[1-9][0-9]*\.[0-9] kbit/s$' rates || true)
    [ "$measured" = 2 ] && break
done
[ "$measured" = 2 ] || fail "no rates"
[ "$(grep -c '^nowhere         no such interface$' rates)" = 2 ] || fail "an interface from nowhere"

: >rates # not what the last one printed
"${emulator[@]}" "$2" 1 0 lo >rates &
printer=$!
wait_for '^lo ' rates
kill -TERM "$printer"
wait "$printer" || fail "the printer failed when it was ended"
ipcs -s | grep -q '^0x' && fail "a semaphore was left"

kill -TERM "$service"
wait "$service" || fail "the service failed"
tail -n 1 said | grep -q '^ended$' || fail "the service did not end"
"${emulator[@]}" "$1" 127.0.0.1 0 2>/dev/null && fail "a port of 0 was taken"
"${emulator[@]}" "$2" 0 0 lo 2>/dev/null && fail "a period of 0 was taken"
cat rates
