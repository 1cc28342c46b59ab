#!/usr/bin/env bash
# Measures the library's speed beside FFmpeg called by hand, the ffmpeg command and other libraries.
#
#   ./bench.sh          everything (under ten minutes), into docs/speed.md and docs/speed.svg;
#                       wants a machine that does nothing else
#   ./bench.sh quick    a smoke check (under a minute): the figures mean nothing and go nowhere
set -euo pipefail
cd "$(dirname "$0")"
. cmake/deps.sh

BENCH_PACKAGES=(libbenchmark-dev libyuv-dev libzimg-dev ffmpeg python3 valgrind)
need_packages "${BUILD_PACKAGES[@]}" "${BENCH_PACKAGES[@]}"

cmake --preset release -B build/bench -DTELVANE_BUILD_BENCH=ON -DTELVANE_BUILD_EXAMPLES=OFF --log-level=WARNING
cmake --build build/bench

arguments=()
[ "${1:-}" = quick ] && arguments+=(--quick)
results=build/bench/speed.json
echo "== measuring"
build/bench/bin/speed "${arguments[@]}" --benchmark_out="$results" --benchmark_out_format=json \
    >build/bench/speed.log 2>&1 || { tail -n 20 build/bench/speed.log >&2; exit 1; }
bench/percall.sh build/bench | tee build/bench/percall.txt

if [ "${1:-}" = quick ]; then
    python3 bench/report.py "$results" build/bench/percall.txt
else
    python3 bench/report.py "$results" build/bench/percall.txt docs/speed.md docs/speed.svg
    echo "== written: docs/speed.md docs/speed.svg"
fi
