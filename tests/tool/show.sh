#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# show.sh MORDEL...: all that `mordel check`, `show` and `render` print, compared byte for byte with
# tests/policies/show/NAME.golden, for each policy of that folder and each example. MORDEL_BLESS=1
# rewrites those files instead: review the diff against the policies.
set -euo pipefail

mordel=("$@")
root=$(cd "$(dirname "$0")/../.." && pwd)
golden=$root/tests/policies/show
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$golden"/*.toml "$root"/examples/*.toml "$work"
cd "$work"
export LC_ALL=C

fail() { echo "show.sh: $*" >&2; exit 1; }

# run STATUS ARG...: what the program writes is in `out` and `err`.
run()
{
    local expected=$1 status=0
    shift
    "${mordel[@]}" "$@" >out 2>err || status=$?
    [ "$status" = "$expected" ] || fail "mordel $*: status $status, not $expected: $(head -n 5 err)"
}

# A command, its status when that is not 0, and what it says
said()
{
    local status=0
    echo "\$ mordel $*"
    "${mordel[@]}" "$@" 2>&1 || status=$?
    [ "$status" = 0 ] || echo "[status $status]"
}

# A command of a policy that is good: what it prints; beside that it says what `check` does. For a
# vendor's kernel it prints the same.
printed()
{
    local file=${!#}
    echo
    echo "\$ ${LC_ALL:+LC_ALL=$LC_ALL }mordel $*"
    run 0 "$@"
    cmp -s err "$file.mainline" || fail "mordel $*: says not what check does: $(cat err)"
    cp out first
    cat first
    run 0 "$@" --kernel vendor
    cmp -s err "$file.vendor" || fail "mordel $* --kernel vendor: says not what check does"
    cmp -s out first || fail "mordel $*: prints another text with --kernel vendor"
}

session()
{
    local file=$1 kind
    for kind in mainline vendor; do
        said check --kernel "$kind" "$file"
        "${mordel[@]}" check --kernel "$kind" "$file" 2>"$file.$kind" || :
    done
    said check --json "$file"
    if [ "$file" = refused.toml ]; then
        for command in "show" "show --json" "show --dot" "render" "render --stop"; do
            # shellcheck disable=SC2086  # several arguments
            run 2 $command "$file"
            [ ! -s out ] || fail "$command: something of a bad policy"
            cmp -s err "$file.mainline" || fail "$command: says not what check does"
        done
        return
    fi
    LC_ALL=C.UTF-8 printed show "$file"
    printed show "$file"
    printed show --json "$file"
    printed show --dot "$file"
    printed render "$file"
    printed render --rules-only "$file"
    printed render --stop "$file"
}

mkdir sessions
for file in *.toml; do
    session "$file" >"sessions/${file%.toml}.golden"
done
if [ -n "${MORDEL_BLESS:-}" ]; then
    rm -f "$golden"/*.golden
    cp sessions/* "$golden"
    exit 0
fi
diff -ru --exclude='*.toml' "$golden" sessions ||
    fail "differs from $golden (MORDEL_BLESS=1 rewrites it)"

# ---- One interface is its part of the whole.

for name in lan0 wan0 wifi0; do
    run 0 show --interface "$name" home-router.toml
    [ ! -e parts ] || echo >>parts
    cat out >>parts
done
run 0 show home-router.toml
cmp out parts || fail "the interfaces one by one are not the whole"

# ---- Lines and blocks where the locale's name says UTF-8; the first variable that is set decides.

run 0 show home-router.toml
cp out ascii
LC_ALL=C.UTF-8 run 0 show home-router.toml
cp out utf8
! LC_ALL=C grep -q '[^ -~]' ascii || fail "more than ASCII without UTF-8"
grep -q '├─ 1:2 ' utf8 || fail "no lines are drawn with UTF-8"
unset LC_ALL
# in_locale TEXT VARIABLE=VALUE...: with these variables alone the tree is as in the file TEXT.
in_locale()
{
    local expected=$1
    shift
    env -u LC_ALL -u LC_CTYPE -u LANG "$@" "${mordel[@]}" show home-router.toml >out
    cmp -s out "$expected" || fail "with '$*' the tree is not in $expected"
}
in_locale ascii A=B
in_locale ascii LC_ALL= LC_CTYPE= LANG=
in_locale ascii LANG=C
in_locale ascii LANG=POSIX
in_locale ascii LANG=de_DE
in_locale ascii LANG=de_DE.ISO-8859-1
in_locale utf8 LANG=C.UTF-8
in_locale utf8 LANG=de_DE.utf8
in_locale utf8 LANG=de_DE.UTF8
in_locale utf8 LANG=de_DE.utf-8@euro
in_locale utf8 LC_CTYPE=C.UTF-8
in_locale utf8 LC_ALL=C.UTF-8
in_locale utf8 LC_ALL= LC_CTYPE= LANG=C.UTF-8
in_locale ascii LC_ALL=C LC_CTYPE=C.UTF-8 LANG=C.UTF-8
in_locale utf8 LC_ALL=C.UTF-8 LC_CTYPE=C LANG=C
in_locale ascii LC_CTYPE=C LANG=C.UTF-8
in_locale utf8 LC_CTYPE=C.UTF-8 LANG=C
in_locale ascii LC_MESSAGES=C.UTF-8 LANG=C
