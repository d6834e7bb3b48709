#!/bin/sh
# SPDX-License-Identifier: MIT
# golden.sh GOLDEN TESTS ROUTER: writes every text that is compared with GOLDEN anew, compares the
# two folders whole, so that no file is left out, and prints one checksum over all the texts.
# EMULATOR: the command that runs programs of another machine, if TESTS and ROUTER are.
set -eu

golden=$1 tests=$2 router=$3
here=$(cd "$(dirname "$0")" && pwd)
MORDEL_GOLDEN_OUT=$(mktemp -d)
trap 'rm -rf "$MORDEL_GOLDEN_OUT"' EXIT
export MORDEL_GOLDEN_OUT
mkdir "$MORDEL_GOLDEN_OUT/home_router"

writers=TcScripts.StartScriptsOfEachRootType:'TreeReport.*Interface'
writers=$writers:RuleReport.RulesOfAnInterface:RuleScriptRun.WritesTheWholeScript
# shellcheck disable=SC2086  # a command and its options
${EMULATOR:-} "$tests" --gtest_filter="$writers"
# shellcheck disable=SC2086
"$here/../private" ${EMULATOR:-} "$router" "$MORDEL_GOLDEN_OUT/home_router"

diff -r "$golden" "$MORDEL_GOLDEN_OUT"
cd "$MORDEL_GOLDEN_OUT"
sum=$(find . -type f | LC_ALL=C sort | xargs sha256sum | sha256sum)
echo "golden: $(find . -type f | wc -l) texts, sha256 ${sum%% *}"
