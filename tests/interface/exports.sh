#!/bin/sh
# SPDX-License-Identifier: MIT
# exports.sh HEADER MAP LIBRARY: the names that the header declares, the version script lists and
# the shared library exports are the same.
set -eu

header=$1 map=$2 library=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Declarations at the top level: comments, preprocessor lines, the C++ wrapper and bodies dropped.
sed -e '/^#ifdef __cplusplus/,/^#endif/d' -e '/^#/d' "$header" | tr '\n' ' ' |
    sed -e 's,/\*[^*]*\*\+\([^/*][^*]*\*\+\)*/,,g' -e ':b' -e 's/{[^{}]*}//g' -e 'tb' |
    tr ';' '\n' |
    sed -n -e '/typedef/d' -e 's/^[^(]*[ *]\([A-Za-z_0-9]*\)(.*/\1/p' \
        -e 's/^ *extern .*[ *]\([A-Za-z_0-9]*\)\(\[[0-9]*]\)* *$/\1/p' |
    sort >"$work/header"
sed -n '/^global:/,/^local:/s/^ *\([A-Za-z_0-9]*\);.*/\1/p' "$map" | sort >"$work/map"
nm -D --defined-only "$library" | awk '{ print $3 }' | sort >"$work/library"

[ -s "$work/header" ]
status=0
diff "$work/header" "$work/map" || { echo "header and version script differ" && status=1; }
diff "$work/header" "$work/library" || { echo "header and library differ" && status=1; }
echo "$(wc -l <"$work/library") names"
exit $status
