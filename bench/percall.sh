#!/usr/bin/env bash
# Instructions per job on the smallest inputs, counted by callgrind: the library's calls, the same
# FFmpeg calls inlined by hand, and how many of the library's are its own code's. Figures, no verdict.
#
#   bench/percall.sh [BUILD_DIRECTORY]
set -euo pipefail
cd "$(dirname "$0")/.."
. cmake/deps.sh

build=${1:-build/bench}
need_packages "${BUILD_PACKAGES[@]}" valgrind
cmake --preset release -B "$build" -DTELVANE_BUILD_BENCH=ON -DTELVANE_BUILD_EXAMPLES=OFF \
    --log-level=WARNING >/dev/null
cmake --build "$build" --target percall >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
if ! valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file="$work/out" \
    "$build/bin/percall" >"$work/log" 2>&1; then
    cat "$work/log" >&2
    exit 1
fi

# In a dump each line of code has its cost, under its object and function; the line after "calls=" is
# the cost of what was called, which is counted where it belongs. Names stand in full on first use only.
awk '
    function known(line,   id) {
        id = line; sub(/ .*/, "", id)
        if (index(line, " ")) name[FILENAME id] = substr(line, index(line, " ") + 1)
        return name[FILENAME id]
    }
    /^desc: Trigger: Client Request: / { path = substr($0, 32) }
    /^ob=/ { object = known($0) }
    /^fn=/ { called = known($0) }
    /^c(ob|fn)=/ { line = $0; sub(/^c/, "", line); known(line) }
    /^calls=/ { skip = 1; next }
    /^[-+*0-9]/ {
        if (skip) { skip = 0; next }
        total[path] += $2
        if (object ~ /libTelvane_AVFilter/ || called ~ /^pthread_rwlock/) own[path] += $2
    }
    END {
        jobs = 100
        printf "%-24s %9s %9s %11s %14s\n", "instructions per job", "library", "steps", "difference", "own and lock"
        for (path in total) {
            if (path !~ /\/library$/) continue
            job = path; sub(/\/library$/, "", job)
            steps = total[job "/steps"]
            printf "%-24s %9.0f %9.0f %11.0f %14.0f\n", job, total[path] / jobs, steps / jobs,
                (total[path] - steps) / jobs, own[path] / jobs | "sort"
        }
    }' "$work"/out.*
