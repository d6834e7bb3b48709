#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# options.sh MANUAL COMPLETION MORDEL...: what `mordel COMMAND --help` says, the manual's synopsis
# and the completion for bash have the same commands, and for each command the same options, with a
# value or without. MORDEL... is the command as it is run, behind its emulator if it needs one.
set -euo pipefail

manual=$1 completion=$2
mordel=("${@:3}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
status=0

# same WHAT FILE FILE: what stands in only one of the two is said.
same()
{
    diff -u --label "$2" --label "$3" "$2" "$3" && return
    echo "options.sh: $1: $2 and $3 differ" >&2
    status=1
}
options() { grep -oE -- '--[a-z-]+( [A-Z]+\b)?' || :; }

# ---- The three sides

help_options() # COMMAND
{
    "${mordel[@]}" "$1" --help | sed -nE 's/^  (--[a-z-]+( [A-Z]+\b)?).*/\1/p'
}
help_operands() { "${mordel[@]}" "$1" --help | sed -n 's/^Usage:.*\[OPTIONS] //p'; }

# The synopsis as plain words, a command a line: mordel check [ --json ] FILE
synopsis()
{
    sed -n '/^\.SH SYNOPSIS/,/^\.SH DESC/{/^\.SH/d;p}' "$manual" |
        sed 's/^\.br$/@/; s/^\.[BIR]* //; s/\\-/-/g' | tr '\n@' ' \n' | sed 's/^ *//; s/ *$//'
    echo
}
manual_options() { sed -n "s/^mordel $1 //p" words | options; }
manual_operands() { sed -n "s/^mordel $1 //p" words | sed 's/\[ --[^]]*]//g; s/ //g; /^$/d'; }

# completed WORD...: what is offered for the last one
completed()
{
    COMP_WORDS=(mordel "$@") COMP_CWORD=$# COMPREPLY=()
    _mordel
    [ ${#COMPREPLY[@]} = 0 ] || printf '%s\n' "${COMPREPLY[@]}"
}
# An option has a value when no option is offered behind it.
completion_options() # COMMAND
{
    local option
    for option in $(completed "$1" --); do
        [ "$option" != --help ] || continue
        [ -n "$(completed "$1" "$option" --)" ] || option="$option VALUE"
        echo "$option"
    done
}

# ---- Compared

# shellcheck source=/dev/null
source "$completion"
synopsis >words

"${mordel[@]}" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p' | sort >commands.help
sed -n 's/^mordel \([a-z]\+\) .*/\1/p' words | sort >commands.manual
completed '' | grep -v ^- | sort >commands.completion
[ -s commands.help ] || { echo "options.sh: --help names no command" >&2 && exit 1; }
same commands commands.help commands.manual
same commands commands.help commands.completion

"${mordel[@]}" --help | sed -n '/^Options:/,/^$/p' | options | sort >options.help
sed -n 's/^mordel .*\(--[a-z]*\)$/\1/p' words | sort >options.manual
completed -- | sort >options.completion
same "without a command" options.help options.manual
same "without a command" options.help options.completion

# What the manual says in its own words, outside of synopsis and examples
sed '/^\.SH SYNOPSIS/,/^\.SH DESC/d; /^\.SH EXAMPLES/,$d; s/\\-/-/g' "$manual" >told
while read -r command; do
    help_options "$command" | sort >"$command.help"
    manual_options "$command" | sort >"$command.manual"
    completion_options "$command" | sort >"$command.completion"
    [ -s "$command.help" ] || { echo "options.sh: $command --help: no option" >&2 && status=1; }
    same "$command" "$command.help" "$command.manual"
    sed 's/ [A-Z]*$/ VALUE/' "$command.help" >"$command.help-values"
    same "$command" "$command.help-values" "$command.completion"
    completed "$command" -- | grep -qx -- --help || {
        echo "options.sh: $command: --help is not completed" >&2
        status=1
    }
    help_operands "$command" >"$command.help-operands"
    manual_operands "$command" >"$command.manual-operands"
    same "$command" "$command.help-operands" "$command.manual-operands"
    while read -r option _; do
        grep -qE -- "$option( |\"|\$)" told && continue
        echo "options.sh: the manual does not say what $command $option does" >&2
        status=1
    done <"$command.help"
done <commands.help
exit $status
