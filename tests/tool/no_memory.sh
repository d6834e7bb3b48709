#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# no_memory.sh LIBRARY MORDEL: each allocation of the commands that print is made to fail in turn.
# The command then ends well, or with status 1, one message and no half output. LIBRARY, preloaded,
# makes the allocations fail.
set -euo pipefail

library=$1 mordel=$2
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

cat >small.toml <<'END'
[[interface]]
name = "eth0"
root = "htb"
phy_tx = "100mbit"
link_tx = "20mbit"

[[interface.rule]]
index = 1
match = { protocol = "tcp" }
target = { mark = 2 }
END

# run N ARG...: the command with its N-th allocation failing
run()
{
    local at=$1
    shift
    status=0
    NO_MEMORY_AT=$at LD_PRELOAD=$library "$mordel" "$@" >out 2>err || status=$?
}

try()
{
    "$mordel" "$@" >whole
    run 0 "$@"
    local count
    count=$(<err)
    [ "$count" -gt 100 ] || { echo "$*: the library counts nothing" >&2; exit 1; }
    local whole n failures=0
    whole=$(<whole)
    for ((n = 1; n <= count; n++)); do
        run "$n" "$@"
        local said output
        said=$(<err)
        output=$(<out)
        case $status in
        0) [ "$output" = "$whole" ] && [ -z "$said" ] && continue ;;
        1)
            failures=$((failures + 1))
            [ -z "$output" ] && [[ $said = "mordel: "* && $said != *$'\n'* ]] && continue
            ;;
        esac
        echo "mordel $*: allocation $n of $count: status $status, said: $said" >&2
        exit 1
    done
    [ "$failures" -gt 100 ] || { echo "mordel $*: only $failures failures" >&2; exit 1; }
    echo "mordel $*: $count allocations, $failures failures"
}

try check --json small.toml
try render "$root/examples/home-router.toml"
try show small.toml
try show --dot small.toml
try show --json "$root/examples/home-router.toml"
