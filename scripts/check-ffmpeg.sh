#!/usr/bin/env bash
# Builds FFmpeg from a source tree, everything but its filters switched off, and passes the library's tests on
# it. Takes some minutes the first time; what is installed under build/ is kept for the next one.
#
#   scripts/check-ffmpeg.sh SOURCE-TREE    for example an unpacked release of FFmpeg 6
set -euo pipefail
if [[ $# -ne 1 || ! -x $1/configure || ! -r $1/RELEASE ]]; then
    echo "usage: scripts/check-ffmpeg.sh SOURCE-TREE    SOURCE-TREE: an unpacked FFmpeg release" >&2
    exit 1
fi
source=$(realpath -- "$1")
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source scripts/deps.sh

version=$(<"$source/RELEASE")
prefix=$PWD/build/ffmpeg-$version
build=$PWD/build/on-ffmpeg-$version
need_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" make nasm

if [[ ! -e $prefix/complete ]]; then
    echo "== building FFmpeg $version"
    rm -rf "$prefix" "$prefix-build"
    mkdir -p "$prefix-build"
    (
        cd "$prefix-build"
        # The GPL is for libpostproc, the protocol for the filters that print.
        "$source/configure" --prefix="$prefix" --enable-gpl --enable-shared --disable-static --disable-programs \
            --disable-doc --disable-autodetect --disable-everything --enable-filters \
            --enable-protocol=pipe
        make -j "$(nproc)"
        make install
    ) >"$prefix.log" 2>&1 || {
        tail -n 20 "$prefix.log" >&2
        exit 1
    }
    rm -r "$prefix-build"
    touch "$prefix/complete"
fi

echo "== building the library and its tests on it"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig LD_LIBRARY_PATH=$prefix/lib
cmake --preset dev -B "$build" --log-level=WARNING -DTELVANE_BUILD_TOOLS=OFF -DTELVANE_BUILD_PYTHON=OFF
cmake --build "$build"
if ldd "$build/lib/libTelvane_AVFilter.so" | grep -E '/lib(av|sw|postproc)' | grep -vF "$prefix/"; then
    echo "the library does not run on this FFmpeg" >&2
    exit 1
fi
echo "== testing"
ctest --test-dir "$build" --output-on-failure --progress -j 2 | tee "$build/ctest.log"
echo "FFmpeg $version (libavfilter $(pkg-config --modversion libavfilter)), Debian $(</etc/debian_version)," \
    "$(uname -m): $(grep 'tests passed' "$build/ctest.log")"
