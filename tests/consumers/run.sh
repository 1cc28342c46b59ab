#!/usr/bin/env bash
# Installs a build, moves the installed tree and uses it from C, C++ and Python: run.sh BUILD_DIRECTORY
set -euo pipefail
build=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/first" --component runtime >/dev/null
if [[ -e $work/first/include ]]; then
    echo "the runtime component brings headers" >&2
    exit 1
fi
cmake --install "$build" --prefix "$work/first" --component development >/dev/null
if grep -rIl -e "$work/first" -e "$build" "$work/first"; then
    echo "these files name the place that they were installed to or built in" >&2
    exit 1
fi
mv "$work/first" "$work/moved"
"$(dirname "$0")/use.sh" "$work/moved" c cpp python
