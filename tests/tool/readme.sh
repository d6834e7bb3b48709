#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# readme.sh MORDEL...: what README.md shows is what a reader gets. MORDEL... is the command as it is
# run, behind its emulator if it needs one.
set -euo pipefail

mordel=("$@")
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$root"
status=0

wrong()
{
    echo "readme.sh: $*" >&2
    status=1
}

# ---- The picture: to the byte what the command that stands above it prints

# shellcheck disable=SC2016  # the dollar is the prompt's
sed -n '/^\$ mordel show examples/,/^```$/{/^\$/d;/^```/d;p}' README.md >"$work/picture"
policy=$(sed -n 's/^\$ mordel show \(examples.*\)/\1/p' README.md)
LC_ALL=C.UTF-8 "${mordel[@]}" show "$policy" >"$work/shown"
[ -s "$work/shown" ] || wrong "no picture of $policy"
diff "$work/shown" "$work/picture" || wrong "the picture is not what mordel show $policy prints"

# ---- The two commands, and what each installs, which stands before them

# shellcheck disable=SC2016  # the backquotes are Markdown's
sed -n '/^```sh$/,/^```$/{/^```/d;s/ *#.*//;p}' README.md >"$work/commands"
printf './dev demo\n./dev test\n' | diff - "$work/commands" || wrong "not its two commands"
# The packages in a command's row of the table above them
row()
{
    # shellcheck disable=SC2016
    sed -n '/^```sh$/q; s/^| `\.\/dev '"$1"'` |\(.*\)|.*/\1/p' README.md | grep -oE '`[a-z0-9+-]+`' |
        tr -d '`'
}
row demo >"$work/demo"
{ cat "$work/demo" && row test; } | sort >"$work/test" # "these, and ..."
for command in demo test; do
    ./dev packages "$command" | diff - "$work/$command" || wrong "$command installs something else"
done

# ---- Every link leads somewhere.

for document in *.md docs/*.md; do
    while read -r target; do
        [ -e "$(dirname "$document")/$target" ] || wrong "$document: $target is not there"
    done < <(grep -oE '\]\([^)#:]+\)' "$document" | sed 's/^](//; s/)$//')
done
exit $status
