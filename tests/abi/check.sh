#!/usr/bin/env bash
# Compares the library's binary interface with the one kept here: check.sh LIBRARY [BASE_LIBRARY]
#
# exports.txt   what the libraries export, and the declarations of it in the header
# layouts.txt   records, globals and codes as a caller's compiler sees them
#
# KEEP=1 writes the lists anew: after a change that removes or alters a line, raise the header's MAJOR;
# after one that only adds lines, its MINOR.
set -euo pipefail
mapfile -t libraries < <(realpath "$@")
cd "$(dirname "$0")"
header=../../include/Telvane_AVFilter.h
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

{
    for library in "${libraries[@]}"; do
        soname=$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
        nm -D --defined-only "$library" | sed -e 's/@.*//' -e 's/ [TW] / function /' -e 's/ [BDRV] / object /' |
            sed "s/^[0-9a-f]* */$soname /" | LC_ALL=C sort
    done
    # One declaration to a line, without attributes.
    "${CXX:-c++}" -E -P -x c++ "$header" | tr -s ' \n' ' ' | tr ';{' '\n\n' |
        sed -n 's/^ *\(extern \)\{0,1\}__attribute__((visibility("default"))) //p'
} >"$work/exports.txt"
"${CC:-cc}" -std=c11 -I ../../include -o "$work/layouts" layouts.c
"$work/layouts" >"$work/layouts.txt"

if [[ -n ${KEEP-} ]]; then
    cp "$work"/*.txt .
fi
failed=0
for list in exports.txt layouts.txt; do
    diff -u --label "$list (kept)" --label "$list (built)" "$list" "$work/$list" || failed=1
done
exit "$failed"
