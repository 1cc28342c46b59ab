#!/usr/bin/env bash
# Compares the library's binary interface with the one kept here: check.sh LIBRARY [BASE_LIBRARY]
#
# exports.txt   what the libraries export, and the header's declarations, records and codes; that the records
#               are laid out as this promises, the header itself asserts
# needs.txt     the libraries that it is linked with and the only functions that it may call in them
#
# KEEP=1 writes the lists anew: after a change that removes or alters a line of exports.txt, raise the
# header's MAJOR; after one that only adds lines, its MINOR.
set -euo pipefail
mapfile -t libraries < <(realpath "$@")
cd "$(dirname "$0")"
header=../../include/Telvane_AVFilter.h
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

{
    for library in "${libraries[@]}"; do
        soname=$("${READELF:-readelf}" -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
        "${NM:-nm}" -D --defined-only "$library" | sed -e 's/@.*//' -e 's/ [TW] / function /' -e 's/ [BDRV] / object /' |
            sed "s/^[0-9a-f]* */$soname /" | LC_ALL=C sort
    done
    # The system's base library is not for us to check.
    [[ ${#libraries[@]} -gt 1 ]] || grep '^libTelvane_BaseLib' exports.txt
    # One declaration or field to a line, without attributes.
    "${CXX:-c++}" -E -P -x c++ "$header" | tr -s ' \n' ' ' | tr ';{' '\n' |
        sed -n '/typedef struct AV/,/}/p; s/^ *\(extern \)\{0,1\}__attribute__((visibility("default"))) //p'
    sed -n '/^#define AVFILTER_ERROR/p' "$header"
} >"$work/exports.txt"
{
    "${READELF:-readelf}" -d "${libraries[0]}" | sed -n 's/.*(NEEDED).*\[\(lib\(av\|sw\|postproc\|Telvane\).*\)\.so.*/library \1/p'
    pkg-config --exists libpostproc || echo library libpostproc # from FFmpeg 8 on there is none
    "${NM:-nm}" -D --undefined-only "${libraries[0]}" | sed -nE 's/@.*//; s/.* ((av|sw|pp_|postproc|BaseLib).*)/function \1/p'
} | LC_ALL=C sort >"$work/needs.txt"

if [[ -n ${KEEP-} ]]; then
    cp "$work"/*.txt .
fi
failed=0
for list in exports.txt needs.txt; do
    diff -u --label "$list (kept)" --label "$list (built)" "$list" "$work/$list" || failed=1
done
diff -u --label declared --label exported <(sed -n '/^lib\|^[ #]/!s/^.* \([A-Za-z_]*\)\((.*\)\{0,1\}$/\1/p' exports.txt | sort) \
    <(sed -n 's/^libTelvane_AVFilter[^ ]* [a-z]* //p' exports.txt | sort) || failed=1
exit "$failed"
