#!/bin/sh
# SPDX-License-Identifier: MIT
# shared_object.sh LIBRARY ARCHIVE [BUDGET]: needs the C library alone, has its name, runs nothing at
# load time and, where a budget is given, is no larger than that many bytes of text, data and bss.
set -eu

library=$1 archive=$2 budget=${3:-}

fail()
{
    echo "$*" >&2
    exit 1
}

dynamic=$(LC_ALL=C readelf -dW "$library")
needed=$(echo "$dynamic" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
case $needed in
'libc.so.6 ' | 'libc.so ') ;;
*) fail "needs $needed" ;;
esac
echo "$dynamic" | grep -q 'SONAME.*\[libmordel\.so\.1\]' || fail "not named libmordel.so.1"
echo "$dynamic" | grep -q 'TEXTREL' && fail "has text relocations"

echo "$dynamic" | grep -E '\((PRE)?(INIT|FINI)' && fail "runs code at load or unload time"
if LC_ALL=C readelf -SW "$archive" | grep -E '\.(init_array|ctors|preinit_array|fini_array|dtors)'; then
    fail "constructors or destructors at load time"
fi
nm -u "$archive" | grep -E '_ZSt|_ZN|_Zn|_Zd|__cxa|__gxx' | grep -v '_ZN6mordel' &&
    fail "wants the C++ run time"

size=$(size "$library" | awk 'NR == 2 { print $4 }')
echo "$size bytes of text, data and bss"
[ -z "$budget" ] || [ "$size" -le "$budget" ] || fail "over the budget of $budget bytes"
