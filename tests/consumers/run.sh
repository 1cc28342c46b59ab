#!/usr/bin/env bash
# Installs a build, moves the installed tree and uses it; uses the source tree as a part of another project,
# on the base library of that installation: run.sh BUILD_DIRECTORY
set -euo pipefail
build=$(realpath "$1")
cd "$(dirname "${BASH_SOURCE[0]}")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/first" --component runtime >/dev/null
[[ ! -e $work/first/include ]]
cmake --install "$build" --prefix "$work/first" >/dev/null
if grep -rIl -e "$work/first" -e "$build" "$work/first"; then exit 1; fi # files that name where they are, or were built
mv "$work/first" "$work/moved"
./use.sh "$work/moved" c cpp tool python pip
{ cmake -S . -B "$work/wrong" -DCMAKE_PREFIX_PATH="$work/moved" -DALSO=Rust 2>&1 || true; } | grep "unknown component Rust"

base=$(dirname "$(find "$work/moved" -name libTelvane_BaseLib.so.1)")
ln -s libTelvane_BaseLib.so.1 "$base/libTelvane_BaseLib.so"
cmake -S . -B "$work/parent" -DTELVANE_SOURCE="$(realpath ../..)" -DTELVANE_SYSTEM_BASELIB=ON \
    -DCMAKE_LIBRARY_PATH="$base" -DCMAKE_INSTALL_RPATH="\$ORIGIN/../lib" >/dev/null
cmake --build "$work/parent" -j 2 >/dev/null
cmake --install "$work/parent" --prefix "$work/whole" >/dev/null
LD_LIBRARY_PATH=$base ldd "$work/whole/bin/video_filter" | grep "libTelvane_BaseLib.* $base/"
LD_LIBRARY_PATH=$base ./use.sh "$work/whole" c
