#!/usr/bin/env bash
# speed.sh TOOL MEDIA: the tool beside the ffmpeg command, on the same files with the same encoders. Prints
# a table of seconds, of the clock and of processors (both use threads for the codecs): each time the least of
# five runs, taken in turn.
set -euo pipefail
tool=$(realpath "$1")
cd "$(realpath "$2")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
[[ -f cockatoo.mp4 ]] || { echo "no clips in $2: run media.sh first" >&2 && exit 1; }
for ((i = 0; i < 60; ++i)); do echo "file '$PWD/Front_Left.wav'"; done >"$work/list"
ffmpeg -hide_banner -nostdin -loglevel error -f concat -safe 0 -i "$work/list" -c copy "$work/long.wav"

# Milliseconds of the clock and of processors.
used() {
    local TIMEFORMAT="%R %U %S"
    { time "$@" >"$work/log" 2>&1 </dev/null || { cat "$work/log" >&2 && exit 1; }; } 2>&1 |
        awk '{ print int($1 * 1000), int(($2 + $3) * 1000) }'
}
x264=(-c:v libx264 -preset veryfast -crf 18 -pix_fmt yuv420p)
# compare NAME -- TOOL ARGUMENT... -- FFMPEG ARGUMENT...
compare() {
    local name=$1 i
    shift 2
    local ours=() theirs=()
    while [[ $1 != -- ]]; do ours+=("$1") && shift; done
    shift
    theirs=("$@")
    for ((i = 0; i < 5; ++i)); do
        echo "$(used "$tool" "${ours[@]}") $(used ffmpeg -hide_banner -nostdin -y "${theirs[@]}")"
    done | awk -v name="$name" '
        { for (k = 1; k <= 4; ++k) if (NR == 1 || $k < t[k]) t[k] = $k }
        END { printf "| %s | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f |\n",
              name, t[1] / 1e3, t[3] / 1e3, t[1] / t[3], t[2] / 1e3, t[4] / 1e3, t[2] / t[4] }'
}
echo "| job | clock: tool | ffmpeg | ratio | processors: tool | ffmpeg | ratio |"
echo "|---|---|---|---|---|---|---|"
compare "hflip, 280 pictures of 1280x720, to H.264" -- video hflip cockatoo.mp4 "$work/a.mp4" -- \
    -i cockatoo.mp4 -vf hflip "${x264[@]}" -c:a copy "$work/b.mp4"
compare "the same to Y4M" -- video hflip cockatoo.mp4 "$work/a.y4m" -- \
    -i cockatoo.mp4 -an -vf hflip,format=yuv420p "$work/b.y4m"
compare "denoising (hqdn3d), to Y4M" -- video hqdn3d cockatoo.mp4 "$work/a.y4m" -- \
    -i cockatoo.mp4 -an -vf hqdn3d,format=yuv420p "$work/b.y4m"
compare "picture-in-picture, to H.264" -- mix-video "[b]scale=320:-2[c];[a][c]overlay=8:8" --in a=cockatoo.mp4 \
    --in b=realshort.mp4 --rate 20 "$work/a.mp4" -- -i cockatoo.mp4 -i realshort.mp4 \
    -lavfi "[1]fps=20,scale=320:-2[c];[0][c]overlay=8:8" -r 20 "${x264[@]}" -c:a copy "$work/b.mp4"
compare "scaling to 640x360, to Y4M" -- scale --pixel-format yuv420p 640x360 cockatoo.mp4 "$work/a.y4m" -- \
    -i cockatoo.mp4 -an -vf scale=640:360:flags=bilinear,format=yuv420p "$work/b.y4m"
compare "equaliser, 89 s of sound, to WAV" -- audio "bass=g=-6,equalizer=f=3000:t=q:w=1:g=4" "$work/long.wav" "$work/a.wav" -- \
    -i "$work/long.wav" -af "bass=g=-6,equalizer=f=3000:t=q:w=1:g=4" "$work/b.wav"
compare "mix of two, 89 s, to FLAC" -- mix-audio "[a][b]amix=inputs=2" --in a="$work/long.wav" --in b="$work/long.wav" "$work/a.flac" -- \
    -i "$work/long.wav" -i "$work/long.wav" -lavfi amix=inputs=2 -sample_fmt s16 "$work/b.flac"
