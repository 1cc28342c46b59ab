#!/usr/bin/env bash
# Builds the fuzz target with clang and runs it: tests/fuzz/run.sh [seconds]
# Ends with a failure if something was found; the input that did it is then in build/fuzz/finds.
set -euo pipefail
cd "$(dirname "$0")/../.."
seconds=${1:-60}

cmake -S . -B build/fuzz -G Ninja --log-level=WARNING -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DTELVANE_FUZZ=ON -DTELVANE_BUILD_EXAMPLES=OFF
cmake --build build/fuzz --target fuzz_calls -- -j2

mkdir -p build/fuzz/finds
build/fuzz/bin/fuzz_calls -max_total_time="$seconds" -max_len=1200 -timeout=25 -rss_limit_mb=2048 \
    -artifact_prefix=build/fuzz/finds/ -print_final_stats=1
