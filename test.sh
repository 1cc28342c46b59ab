#!/usr/bin/env bash
# Builds the library and passes its tests. Installs what is missing; can be run again cheaply.
#
#   ./test.sh            the dev preset
#   ./test.sh PRESET     another one of CMakePresets.json: clang, asan-ubsan, tsan
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
source scripts/deps.sh

preset=${1:-dev}
packages=("${BUILD_PACKAGES[@]}" "${TOOL_PACKAGES[@]}" "${PYTHON_PACKAGES[@]}" "${TEST_PACKAGES[@]}")
if [[ $preset == clang ]]; then packages+=(clang "${BENCH_PACKAGES[@]}"); fi
need_packages "${packages[@]}"

echo "== configuring ($preset)"
cmake --preset "$preset" --log-level=WARNING
echo "== building"
cmake --build --preset "$preset"
echo "== testing"
# Two at a time and no more: some tests run several threads of their own.
ctest --preset "$preset" --progress -j 2
