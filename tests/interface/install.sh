#!/bin/sh
# SPDX-License-Identifier: MIT
# install.sh SOURCE CC [TOOLCHAIN]: configures and builds with nothing but a compiler, installs, and
# compiles and runs the README's C program against what was installed. For another machine, TOOLCHAIN
# is its CMake file and EMULATOR the command that runs its programs.
set -eu

source=$1 cc=$2 toolchain=${3:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake -S "$source" -B "$work/build" -DBUILD_TESTING=OFF -DMORDEL_TOOLS=OFF \
    -DCMAKE_C_COMPILER="$cc" ${toolchain:+"-DCMAKE_TOOLCHAIN_FILE=$toolchain"} >/dev/null
cmake --build "$work/build" >/dev/null
cmake --install "$work/build" --prefix "$work/usr" >/dev/null

# shellcheck disable=SC2016  # the backquotes are Markdown's
sed -n '/^```c$/,/^```$/{/^```/d;p}' "$source/README.md" >"$work/program.c"
[ -s "$work/program.c" ]
PKG_CONFIG_PATH=$(dirname "$(find "$work/usr" -name mordel.pc)")
EMULATOR=${EMULATOR:-}
export PKG_CONFIG_PATH EMULATOR
# shellcheck disable=SC2046  # a list of options
"$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror "$work/program.c" \
    $(pkg-config --cflags --libs mordel) -Wl,-rpath,"$(pkg-config --variable=libdir mordel)" \
    -o "$work/program"

# shellcheck disable=SC2016  # for the inner shell
"$source/tests/private" sh -ec '$EMULATOR "$1" && sh -n /var/tmp/qos_start && cat /var/tmp/qos_start' \
    sh "$work/program" >"$work/script"
grep -q '^tc qdisc add dev eth0 handle 1:0 root htb default 0x3$' "$work/script"
echo "the README's program wrote a script of $(wc -l <"$work/script") lines"
