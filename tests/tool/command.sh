#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# command.sh MORDEL...: the program as it is run. All arguments together are the command: in front of
# the program there may be the emulator that it needs.
set -euo pipefail

mordel=("$@")
root=$(cd "$(dirname "$0")/../.." && pwd)
golden=$root/tests/golden/home_router
home=$root/examples/home-router.toml
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
export LC_ALL=C

fail()
{
    echo "$*" >&2
    head -n 5 out err >&2 || true
    exit 1
}

# run STATUS ARG...: what the program writes is in `out` and `err`.
run()
{
    local expected=$1 status=0
    shift
    what="mordel $*"
    "${mordel[@]}" "$@" >out 2>err || status=$?
    [ "$status" = "$expected" ] || fail "$what: status $status, not $expected"
}
nothing() { [ ! -s "$1" ] || fail "$what: something on $1"; }
said() { grep -q -- "$1" err || fail "$what: not said: $1"; }
lines() { [ "$(wc -l <err)" = "$1" ] || fail "$what: not $1 lines"; }
no_escape() { ! grep -q $'\e' out err || fail "$what: an escape byte"; }

cat >good.toml <<'EOF'
[[interface]]
name = "eth0"
root = "htb"
phy_tx = "100mbit"
link_tx = "20mbit"

[[interface]]
name = "eth1"
root = "prio"
EOF
{
    cat good.toml
    cat <<'EOF'
[[interface.rule]]
index = 1
match = { domain = "a.example" }
target = { mark = 1 }
EOF
} >warned.toml
cat >bad.toml <<'EOF'
[[interface]]
name = "eth0"
root = "htb"
phy_tx = "100mbit"
link_tx = "20mb"
default = 9
EOF

# ---- Errors and warnings: on standard error, with their places

run 0 check good.toml
nothing out
nothing err
for command in check render show; do
    run 2 "$command" bad.toml
    nothing out
    lines 2
    [ "$(cut -d' ' -f1 err | tr '\n' ' ')" = "bad.toml:5:11: bad.toml:6:11: " ] ||
        fail "$what: not the places of both errors, in the order of the file"
    run 0 "$command" warned.toml
    lines 1
    said '^warned\.toml:12:20: warning: '
    run 0 "$command" --kernel mainline warned.toml
    lines 1
    run 0 "$command" --kernel vendor warned.toml
    nothing err
    run 2 "$command" --kernel other warned.toml
    nothing out
    said other

    echo 'interface = [' >none.toml
    run 2 "$command" none.toml
    nothing out
    lines 1
    said '^none\.toml:[0-9]*:[0-9]*: '

    run 2 "$command" missing.toml
    nothing out
    lines 1
    said 'missing\.toml.*No such file'
    run 2 "$command" .
    nothing out
    lines 1
    said 'Is a directory'
    run 2 "$command" ""
    nothing out
done

# ---- A file without an end is refused: nothing is read beyond the largest policy

for command in check apply; do
    run 2 "$command" /dev/zero
    nothing out
    said '^mordel: /dev/zero is larger than 64 MiB; a policy is no more than that$'
done
run 2 check - </dev/zero
said '^mordel: standard input is larger than 64 MiB; a policy is no more than that$'
run 0 check warned.toml
nothing out

# ---- Usage

for arguments in "" "nonsense" "check" "render" "show" "check --nonsense good.toml" \
    "render --rules-only --stop good.toml" "show --json --dot good.toml" "check good.toml good.toml" \
    "render --interface" "check --kernel"; do
    # shellcheck disable=SC2086  # several arguments
    run 2 $arguments
    nothing out
    [ -s err ] || fail "$what: no word"
done
run 0 --help
nothing err
run 0 --version
grep -qx 'mordel [0-9]*\.[0-9]*\.[0-9]*' out || fail "$what: not a version"

# ---- Standard input

for command in check render show; do
    run 0 "$command" good.toml
    cp out named
    run 0 "$command" - <good.toml
    cmp -s out named || fail "$what: not what a file of that text gives"
    run 2 "$command" - <bad.toml
    nothing out
    said '^-:5:11: '
    run 2 "$command" - </dev/null
    nothing out
    said '^-:1:1: '
done

# ---- Scripts

run 0 render "$home"
nothing err
cat "$golden"/{lan0,wan0,wifi0}.start >expected
cmp out expected || fail "$what: not the three scripts in the order of the file"
run 0 render --stop "$home"
cat "$golden"/{lan0,wan0,wifi0}.stop >expected
cmp out expected || fail "$what: not the three scripts in the order of the file"
for name in lan0 wan0 wifi0; do
    run 0 render --interface "$name" "$home"
    cmp out "$golden/$name.start" || fail "$what: not that script"
    run 0 render "$home" --stop --interface "$name"
    cmp out "$golden/$name.stop" || fail "$what: not that script"
    run 0 render --rules-only --interface "$name" "$home"
    { head -n 3 "$golden/$name.start" && grep ^iptables "$golden/$name.start"; } >expected
    cmp out expected || fail "$what: not that script"
done
for command in render show; do
    run 2 "$command" --interface eth9 good.toml
    nothing out
    said 'no interface "eth9"'
done

# ---- Texts from the command line are texts.

# shellcheck disable=SC2016  # nothing is to be expanded
for text in '$(touch hit)' '`touch hit`' 'a;touch hit' 'a|touch hit' 'a&touch hit' '*' "a'b" 'a"b' \
    'a b' '%s%n%n%n' $'a\nb' $'a\e[2Jb' $'a\xffb' $'\u0435th0'; do
    run 2 render --interface "$text" good.toml
    nothing out
    lines 1
    no_escape
    run 2 render "--interface=$text" good.toml
    run 2 check "$text"
    lines 1
    no_escape
    run 1 status "$text"
    nothing out
    lines 1
    no_escape
    cp good.toml "$text.toml"
    run 0 render "$text.toml"
    grep -q '^tc ' out || fail "$what: no script"
    nothing err
done
cp bad.toml -- -bad.toml
run 2 check -- -bad.toml
said '^-bad\.toml:5:11: '
[ ! -e hit ] || fail "a text was run"

# ---- For programs

if command -v python3 >/dev/null; then
    json() { python3 -m json.tool >json <"$1"; }
elif command -v jq >/dev/null; then
    json() { jq . >json <"$1"; }
else
    echo "neither python3 nor jq: nobody has looked whether the JSON is JSON"
    json() { cp "$1" json; }
fi
for file in good.toml warned.toml bad.toml none.toml $'a\xffb.toml' $'a\nb.toml' 'a"b.toml'; do
    status=0
    case $file in bad.toml | none.toml) status=2 ;; esac
    run "$status" check --json "$file"
    nothing err
    json out || fail "$what: no JSON"
    [ "$status" = 0 ] && word=true || word=false
    grep -q "\"ok\": $word" json || fail "$what: ok is not $word"
done
run 2 check --json bad.toml
[ "$(grep -cE '"severity": "error"|"line": [56]|"column": 11' out)" = 6 ] || fail "$what: two errors"
run 2 check --json missing.toml
lines 1
said missing
run 0 show --json "$home"
json out || fail "$what: no JSON"
run 2 show --json bad.toml
nothing out

run 0 show --dot "$home"
opened=$(tr -cd '{' <out | wc -c)
[ "$opened" -ge 1 ] || fail "$what: no brace"
[ "$opened" = "$(tr -cd '}' <out | wc -c)" ] || fail "$what: braces do not balance"

# ---- Colours: on a terminal alone, and not where they are not wished for

for options in "" "--json" "--dot"; do
    # shellcheck disable=SC2086  # none or one
    run 0 show $options "$home"
    no_escape
    # shellcheck disable=SC2086
    NO_COLOR=1 run 0 show $options "$home"
    no_escape
done
if command -v script >/dev/null; then
    printf -v line '%q ' "${mordel[@]}" show "$home"
    TERM=xterm script -qec "env -u NO_COLOR $line" /dev/null >out </dev/null
    grep -q $'\e' out || fail "show on a terminal: no colours"
    TERM=xterm script -qec "NO_COLOR=1 $line" /dev/null >out </dev/null
    grep -q lan0 out || fail "show on a terminal: nothing"
    no_escape
else
    echo "no script(1): nobody has looked at a terminal"
fi

# ---- A full disk

for arguments in "check --json" "render" "render --stop" "show" "show --json" "show --dot"; do
    status=0
    # shellcheck disable=SC2086  # several arguments
    "${mordel[@]}" $arguments "$home" >/dev/full 2>err || status=$?
    [ "$status" = 1 ] || fail "mordel $arguments: status $status on a full disk"
    grep -q 'cannot write: No space left on device' err || fail "mordel $arguments: not said why"
done

# ---- Programs that are run

# A network, a state folder and tools of the test's own. tc and iptables take all and say nothing.
own=(unshare -mn)
[ "$(id -u)" = 0 ] || own=(unshare -rmn)
mkdir tools
for tool in tc iptables iptables-restore; do
    printf '#!/bin/sh\n' >tools/$tool
    chmod +x tools/$tool
done
printf '[[interface]]\nname = "lo"\nroot = "prio"\n' >lo.toml

# stop_with SHELL: has a shell do something and then stop lo; "$@" is mordel.
# shellcheck disable=SC2016  # for the inner shells
stop_with()
{
    what="stop of lo, after: $1"
    status=0
    "${own[@]}" bash -c '
        set -e
        mount -t tmpfs tmpfs /var/run
        mount -t tmpfs tmpfs /usr/local/sbin
        cp tools/* /usr/local/sbin
        PATH=/usr/local/sbin:$PATH
        then=$1
        shift
        eval "$then"' bash "$1" "${mordel[@]}" >out 2>err || status=$?
}

if [ "$#" -gt 1 ]; then
    echo "an emulator: nobody has looked at the programs that are run"
elif ! stop_with 'exit 0' || [ "$status" != 0 ]; then
    skipped='no namespaces: nobody has looked at the programs that are run'
else
    stop_with '"$@" stop lo.toml'
    [ "$status" = 0 ] || fail "$what: status $status"
    nothing err
    # Daemons ignore SIGCHLD, so that their children need no waiting for.
    stop_with 'trap "" CHLD; "$@" stop lo.toml'
    [ "$status" = 0 ] || fail "$what: status $status"
    nothing err
    # Nobody's PATH: the shell would make one up, env does not.
    stop_with 'unset PATH; exec /usr/bin/env -u PATH "$@" stop lo.toml'
    [ "$status" = 0 ] || fail "$what: status $status"
    nothing err
    # A sanitizer needs descriptors for itself.
    if [ -z "${SANITIZED:-}" ]; then
        stop_with 'ulimit -n 7; exec "$@" stop lo.toml'
        [ "$status" = 1 ] || fail "$what: status $status"
        [ "$(cat err)" = 'mordel: lo: iptables: cannot be started: Too many open files' ] ||
            fail "$what: another message"
    fi
    for killed in 'kill -KILL $$' 'exit 3'; do
        printf '#!/bin/sh\n%s\n' "$killed" >tools/iptables
        stop_with '"$@" stop lo.toml'
        [ "$status" = 1 ] || fail "$what: status $status"
        case $killed in
        kill*) said '^mordel: lo: iptables: was killed by signal 9 (Killed)$' ;;
        exit*) said '^mordel: lo: iptables: ended with status 3 and said nothing$' ;;
        esac
    done
    printf '#!/bin/sh\n' >tools/iptables
    # Done, and nobody hears of it: not the status of a failure
    stop_with 'exec "$@" stop lo.toml >/dev/full'
    [ "$status" = 3 ] || fail "$what: status $status"
    [ "$(cat err)" = 'mordel: done, but cannot write the report: No space left on device' ] ||
        fail "$what: another message"
    stop_with 'exec "$@" stop --dry-run lo.toml >/dev/full'
    [ "$status" = 1 ] || fail "$what: status $status"
    said '^mordel: cannot write: No space left on device$'
fi

# ---- Nothing is written, and no program is run

if [ "$#" -gt 1 ]; then
    echo "an emulator: nobody has looked at the files that are opened"
elif ! strace -o trace true 2>/dev/null; then
    skipped='no strace: nobody has looked at the files that are opened'
else
    for arguments in "check" "check --json" "render" "render --stop" "render --rules-only" "show" \
        "show --json" "show --dot"; do
        # shellcheck disable=SC2086  # several arguments
        ASAN_OPTIONS=detect_leaks=0 strace -f -o trace \
            -e trace=open,openat,creat,execve,fork,vfork,unlink,unlinkat,rename,mkdir,socket \
            "${mordel[@]}" $arguments "$home" >out
        grep -q 'home-router\.toml' trace || fail "mordel $arguments: the trace shows nothing"
        sed -i '/\/tmp\/tsan\.rodata\./d' trace # the thread sanitizer's own
        ! grep -E 'O_WRONLY|O_RDWR|O_CREAT|creat\(|/dev/console|/var/tmp' trace ||
            fail "mordel $arguments: a file was opened for writing"
        [ "$(grep -c 'execve(' trace)" = 1 ] || fail "mordel $arguments: a program was run"
        ! grep -E ' (fork|vfork|unlink|unlinkat|rename|mkdir|socket)\(' trace ||
            fail "mordel $arguments: more than reading"
    done
fi

# ---- What the documents show

for document in README.md docs/policy.md; do
    # shellcheck disable=SC2016  # the backquotes are Markdown's
    sed -n '/^```toml$/,/^```$/{/^```/d;p}' "$root/$document" >shown.toml
    [ -s shown.toml ] || fail "no policy in $document"
    run 0 check shown.toml
    nothing err
done
run 0 --version
grep -qxE 'mordel [0-9]+\.[0-9]+\.[0-9]+' out || fail "no version"
run 0 --help
for command in check render show apply stop status watch; do
    grep -q "^  $command " out || fail "--help does not name $command"
    grep -q "^\.B mordel $command\$" "$root/docs/mordel.8" || fail "the manual does not name $command"
    run 0 "$command" --help
    grep -q '^Examples:$' out || fail "$command --help shows no example"
    run 0 --help
done

if [ -n "${skipped:-}" ]; then
    echo "$skipped"
    exit 77
fi
