#!/usr/bin/env bash
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

"${emulator[@]}" "$1" 127.0.0.1 7007 >said &
service=$!
trap 'kill "$service" 2>/dev/null || true' EXIT
for _ in $(seq 100); do
    grep -q '^listening on 127.0.0.1:7007$' said 2>/dev/null && break
    sleep 0.1
done

# Two clients at once, each with its own bytes
exec 3<>/dev/tcp/127.0.0.1/7007 4<>/dev/tcp/127.0.0.1/7007
echo one >&3
echo two >&4
read -r -t 10 answer <&4 || fail "the second client got no answer"
[ "$answer" = two ] || fail "the second client got $answer"
read -r -t 10 answer <&3 || fail "the first client got no answer"
[ "$answer" = one ] || fail "the first client got $answer"
exec 3>&- 4>&-
for _ in $(seq 100); do
    [ "$(grep -c ': closed$' said)" = 2 ] && break
    sleep 0.1
done
[ "$(grep -cE '^[0-9]+: from 127\.0\.0\.1:[0-9]+$' said)" = 2 ] || fail "not two clients"
[ "$(grep -c ': closed$' said)" = 2 ] || fail "not two clients closed"

# Something to measure while the printer runs: a packet each 10 ms
"${emulator[@]}" "$2" 1 2 lo nowhere >rates &
printer=$!
while kill -0 "$printer" 2>/dev/null; do
    printf '%01000d' 0 >/dev/udp/127.0.0.1/9 || true
    sleep 0.01
done
wait "$printer" || fail "the printer failed"
[ "$(wc -l <rates)" = 4 ] || fail "not two lines per period"
[ "$(grep -cE '^lo {13} rx +[1-9][0-9]*\.[0-9] kbit/s  tx +[1-9][0-9]*\.[0-9] kbit/s$' rates)" = 2 ] ||
    fail "no rates"
[ "$(grep -c '^nowhere         no such interface$' rates)" = 2 ] || fail "an interface from nowhere"

"${emulator[@]}" "$2" 1 0 lo >rates &
printer=$!
for _ in $(seq 100); do
    grep -q '^lo ' rates && break
    sleep 0.1
done
kill -TERM "$printer"
wait "$printer" || fail "the printer failed when it was ended"
ipcs -s | grep -q '^0x' && fail "a semaphore was left"

kill -TERM "$service"
wait "$service" || fail "the service failed"
tail -n 1 said | grep -q '^ended$' || fail "the service did not end"
"${emulator[@]}" "$1" 127.0.0.1 0 2>/dev/null && fail "a port of 0 was taken"
"${emulator[@]}" "$2" 0 0 lo 2>/dev/null && fail "a period of 0 was taken"
cat rates
