#!/usr/bin/env bash
# cookbook.sh TOOL MEDIA PAGE: runs every command block of the cookbook page and looks at what it makes.
set -euo pipefail
tool=$(realpath "$1")
media=$(realpath "$2")
page=$(realpath "$3")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin" "$work/files"
ln -s "$tool" "$work/bin/telvane-avfilter"
PATH=$work/bin:$PATH
cd "$work/files"
for pair in clip.mp4 cam.mp4 green.mp4 logo.png screen.mp4:clip.mp4 photo.png:train.png voice.wav:Front_Left.wav \
    other.wav:Rear_Left.wav left.wav:Front_Left.wav right.wav:Front_Right.wav; do
    ln -s "$media/${pair#*:}" "${pair%:*}"
done

# One file per block, numbered.
awk -v work="$work" '/^```sh$/ { file = sprintf("%s/%03d.sh", work, ++n); next } /^```$/ { file = "" } file { print > file }' "$page"
fail() {
    echo "$1: $(cat "$block" "$work/log")"
    exit 1
}
for block in "$work"/*.sh; do
    touch "$work/before"
    bash -euo pipefail "$block" >"$work/log" 2>&1 || fail FAILED
    made=$(find . -type f -newer "$work/before")
    [[ -n $made ]] || fail "NOTHING MADE"
    for file in $made; do
        # Decoded to its end, without a complaint, and longer than nothing.
        frames=$(ffprobe -v error -count_frames -show_entries stream=nb_read_frames -of csv=p=0 "$file" 2>&1) &&
            [[ $frames =~ ^([1-9][0-9]*,?[[:space:]]*)+$ ]] || fail "BAD FILE $file: $frames"
    done
done
[[ $block > $work/035 ]] || fail "TOO FEW BLOCKS"
