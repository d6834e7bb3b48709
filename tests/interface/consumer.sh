#!/bin/sh
# SPDX-License-Identifier: MIT
# consumer.sh SOURCE CC [TOOLCHAIN]: builds and runs the project in tests/consumer, which takes
# SOURCE in by add_subdirectory, and compares what its cache holds with and without the library.
# For another machine, TOOLCHAIN is its CMake file.
set -eu

source=$1 cc=$2 toolchain=${3:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail()
{
    printf '%s\n' "$*" >&2
    exit 1
}

configure() # FOLDER OPTION...
{
    folder=$work/$1
    shift
    cmake -S "$source/tests/consumer" -B "$folder" -DCMAKE_C_COMPILER="$cc" \
        ${toolchain:+"-DCMAKE_TOOLCHAIN_FILE=$toolchain"} "$@" >/dev/null
}

# What may come with the library: its own options, the C++ compiler, and the look for threads.
# The number of makefiles is CMake's own account.
comes_along='mordel_[A-Z_]*|MORDEL(_[A-Z]*)?|CMAKE_CXX_(COMPILER|FLAGS)[A-Z_]*|'
comes_along=$comes_along'CMAKE_HAVE_LIBC_PTHREAD|FIND_PACKAGE_MESSAGE_DETAILS_Threads|'
comes_along=$comes_along'CMAKE_NUMBER_OF_MAKEFILES'
cache() # FOLDER
{
    grep -E '^[A-Za-z_0-9-]+:[A-Z]+=' "$work/$1/CMakeCache.txt" | sed "s,$work/$1,,g" |
        grep -vE "^($comes_along)(-ADVANCED)?:" | LC_ALL=C sort
}

for build_type in Debug ''; do
    configure alone -DCMAKE_BUILD_TYPE="$build_type"
    configure both -DCMAKE_BUILD_TYPE="$build_type" -DMORDEL="$source"
    cache alone >"$work/expected"
    cache both >"$work/found"
    grep -qx "CMAKE_BUILD_TYPE:[A-Z]*=$build_type" "$work/expected" || fail "no cache to compare"
    diff "$work/expected" "$work/found" || fail "the library changes the consumer's cache"
done

cmake --build "$work/both" >/dev/null
for extra in mordel_tests home_router bin/mordel tools/mordel; do
    [ -z "$(find "$work/both" -path "*/$extra" -type f)" ] || fail "$extra was built unasked"
done
cmake --install "$work/both" --prefix "$work/usr" >/dev/null
[ ! -e "$work/usr" ] || fail "the library was installed unasked"

ctest --test-dir "$work/both" -V >"$work/said" || fail "$(cat "$work/said")"
[ "$(grep -c '^[12]: 192\.168\.1\.1$' "$work/said")" = 2 ] || fail "$(cat "$work/said")"
grep -q '^100% tests passed, 0 tests failed out of 2$' "$work/said" || fail "$(cat "$work/said")"

needed()
{
    LC_ALL=C readelf -dW "$work/both/$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' '
}
[ "$(needed with_mordel)" = 'libmordel.so.1 libc.so.6 ' ] || fail "needs $(needed with_mordel)"
[ "$(needed with_mordel_static)" = 'libc.so.6 ' ] || fail "needs $(needed with_mordel_static)"
echo "the consumer was built, and keeps its $(wc -l <"$work/expected") entries of the cache"
