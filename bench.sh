#!/usr/bin/env bash
# Measures the library's speed beside FFmpeg called by hand, the ffmpeg command and other libraries.
#
#   ./bench.sh          everything (under six minutes), into docs/speed.md; wants a machine that does nothing else
#   ./bench.sh quick    a smoke check (under a minute): the figures mean nothing and go nowhere
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
source scripts/deps.sh

need_packages "${BUILD_PACKAGES[@]}" "${BENCH_PACKAGES[@]}"
cmake -B build/bench -G Ninja --log-level=WARNING -DCMAKE_BUILD_TYPE=Release -DTELVANE_BUILD_BENCH=ON \
    -DTELVANE_BUILD_TESTS=OFF -DTELVANE_BUILD_EXAMPLES=OFF
cmake --build build/bench

echo "== measuring"
{
    printf '<!-- measured: machine -->\nMeasured by `./bench.sh` on %s: %s, %s processors, FFmpeg %s.\n<!-- end -->\n' \
        "$(date +%F)" "$(lscpu | sed -n 's/^Model name: *//p')" "$(nproc)" "$(ffmpeg -version | sed -n '1s/^ffmpeg version \([^ ]*\).*/\1/p')"
    build/bench/bin/speed "$@"
} | tee build/bench/speed.md
if [[ ${1:-} == quick ]]; then exit; fi

# What stands between "<!-- measured: NAME -->" and the next "<!-- end -->" is replaced.
awk '/^<!-- end/ { name = ""; skip = 0 }
     NR == FNR { if (name) text[name] = text[name] $0 "\n" }
     NR != FNR && !skip { print }
     /^<!-- measured/ { name = $0; skip = NR != FNR; if (skip) printf "%s", text[name] }' \
    build/bench/speed.md docs/speed.md >build/bench/new.md
cp build/bench/new.md docs/speed.md
echo "== written: docs/speed.md"
