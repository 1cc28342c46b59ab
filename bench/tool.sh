#!/usr/bin/env bash
# bench/tool.sh TOOL [ROUNDS]: the tool beside the ffmpeg command, on the same files with the same encoders. Prints
# a table of seconds, of the clock and of processors: the median of the rounds, taken in turn.
set -euo pipefail
tool=$(realpath "$1")
rounds=${2:-5}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
ffmpeg() { command ffmpeg -hide_banner -nostdin -loglevel error -y "$@"; }
ffmpeg -f lavfi -i testsrc2=s=1920x1080:r=25 -t 10 -c:v libx264 -preset veryfast -pix_fmt yuv420p clip.mp4
ffmpeg -i clip.mp4 -vf scale=480:270 -c:v libx264 -preset veryfast small.mp4
ffmpeg -f lavfi -i anoisesrc=r=48000:a=0.3:seed=1 -af tremolo=f=2 -t 600 -ac 2 sound.wav

# Milliseconds of the clock and of processors.
used() {
    local TIMEFORMAT="%R %U %S"
    { time "$@" >log 2>&1 </dev/null || { cat log >&2 && exit 1; }; } 2>&1 |
        awk '{ print int($1 * 1000), int(($2 + $3) * 1000) }'
}
# compare NAME TOOL ARGUMENT... -- FFMPEG ARGUMENT...
compare() {
    local name=$1 i ours=()
    shift
    while [[ $1 != -- ]]; do ours+=("$1") && shift; done
    shift
    for ((i = 0; i < rounds; ++i)); do
        echo "$(used "$tool" "${ours[@]}" -y) $(used ffmpeg "$@")"
    done >rounds.txt
    for i in 1 2 3 4; do cut -d' ' -f"$i" rounds.txt | sort -n | sed -n "$((rounds / 2 + 1))p"; done | paste -sd' ' |
        awk -v name="$name" '{ printf "| %s | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f |\n",
              name, $1 / 1e3, $3 / 1e3, $1 / $3, $2 / 1e3, $4 / 1e3, $2 / $4 }'
}
x264=(-c:v libx264 -preset veryfast -crf 18)
echo "| job | clock: tool | ffmpeg | ratio | processors: tool | ffmpeg | ratio |"
echo "|---|---|---|---|---|---|---|"
compare "hflip" video hflip clip.mp4 a.mp4 -- -i clip.mp4 -vf hflip "${x264[@]}" b.mp4
compare "scale to 720p" scale 1280x720 clip.mp4 a.mp4 -- \
    -i clip.mp4 -vf scale=1280:720:flags=bilinear "${x264[@]}" b.mp4
compare "video scale to 720p" video scale=1280:720 clip.mp4 a.mp4 -- -i clip.mp4 -vf scale=1280:720 "${x264[@]}" b.mp4
compare "overlay" mix-video '[a][b]overlay=8:8' --in a=clip.mp4 --in b=small.mp4 a.mp4 -- \
    -i clip.mp4 -i small.mp4 -lavfi '[0][1]overlay=8:8' "${x264[@]}" b.mp4
compare "yadif" video yadif clip.mp4 a.mp4 -- -i clip.mp4 -vf yadif "${x264[@]}" b.mp4
compare "compand, 10 minutes" audio compand sound.wav a.wav -- -i sound.wav -af compand b.wav
compare "loudnorm, 10 minutes" audio loudnorm sound.wav a.wav -- -i sound.wav -af loudnorm b.wav
compare "mix of four, 10 minutes" mix-audio '[a][b][c][d]amix=inputs=4' --in a=sound.wav --in b=sound.wav \
    --in c=sound.wav --in d=sound.wav a.wav -- \
    -i sound.wav -i sound.wav -i sound.wav -i sound.wav -lavfi amix=inputs=4 b.wav
compare "hflip to y4m on /dev/null" video hflip clip.mp4 /dev/null --to y4m -- \
    -i clip.mp4 -an -vf hflip -f yuv4mpegpipe /dev/null
