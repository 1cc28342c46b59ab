#!/usr/bin/env bash
# Builds the library and the command-line tool and runs six commands on real clips, photographs and voices,
# each printed as it runs. What they make is left in demo-out/, with a contact sheet of it.
#
#   ./demo.sh         on clips, photographs and voices from Debian packages
#   ./demo.sh FILE    on a clip or picture of yours
set -euo pipefail

if [[ $# -gt 1 || ($# == 1 && ! -r $1) ]]; then
    echo "usage: ./demo.sh [FILE]    FILE: a clip or picture that can be read" >&2
    exit 1
fi
main=${1:+$(realpath -- "$1")}
cd "$(dirname "${BASH_SOURCE[0]}")"
source scripts/deps.sh

out=demo-out
log=build/demo.log
cells=build/demo-cells
rm -rf "$cells"
mkdir -p "$out" "$cells"
: >"$log"
finish() {
    local status=$?
    if ((status != 0)); then
        tail -n 15 "$log" >&2
        echo "demo.sh failed" >&2
    fi
}
trap finish EXIT

echo "== packages, library, tool"
need_packages "${BUILD_PACKAGES[@]}" "${TOOL_PACKAGES[@]}" ffmpeg
cmake -B build/demo -G Ninja -DCMAKE_BUILD_TYPE=Release -DTELVANE_BUILD_TOOLS=ON -DTELVANE_BUILD_TESTS=OFF \
    -DTELVANE_BUILD_EXAMPLES=OFF >>"$log" 2>&1
cmake --build build/demo
if [[ ! -f build/media/complete ]]; then
    echo "== clips, photographs and voices: downloading forensics-samples-files and alsa-utils, not installing them"
    scripts/media.sh build/media
fi
media=build/media
length=${main:+5}
main=${main:-$media/dog.mp4}

# Prints a command as one can type it here, and runs it.
n=0
run() {
    local word
    [[ $1 == probe ]] || set -- "$@" --force # what an earlier run left
    printf '\n[%d of 6] build/demo/bin/telvane-avfilter' $((++n))
    for word in "$@"; do
        if [[ $word == *[^a-zA-Z0-9_./=:-]* ]]; then printf " '%s'" "$word"; else printf ' %s' "$word"; fi
    done
    echo
    build/demo/bin/telvane-avfilter "$@"
}
run probe "$main"
run video "curves=preset=vintage,vignette" "$main" "$out/vintage.mp4" --length "${length:-1.5}"
run mix-video "[speaker]crop=252:190:114:83,scale=400:-2,pad=iw+8:ih+8:4:4:white[inset];[main][inset]overlay=W-w-24:H-h-24" \
    --in main="$main" --in speaker="$media/speaker.mp4" "$out/picture-in-picture.mp4" --length "${length:-1.5}"
run scale 371x278 "$media/train.jpg" "$out/train.png"
run audio "highpass=f=150,aecho=0.8:0.7:250|400:0.4|0.25" "$media/Front_Left.wav" "$out/echo.wav"
run mix-audio "[fl]pan=stereo|c0=c0[a];[fr]adelay=1000,pan=stereo|c1=c0[b];
    [rl]adelay=2000,lowpass=f=3000,pan=stereo|c0=0.6*c0|c1=0.15*c0[c];
    [rr]adelay=3000,lowpass=f=3000,pan=stereo|c0=0.15*c0|c1=0.6*c0[d];[a][b][c][d]amix=inputs=4:normalize=0" \
    --in fl="$media/Front_Left.wav" --in fr="$media/Front_Right.wav" --in rl="$media/Rear_Left.wav" --in rr="$media/Rear_Right.wav" "$out/voices.flac"

# cell CAPTION FILE [PICTURE]: one field of the contact sheet. Sound is shown as its wave, a line per channel.
cell() {
    local caption="drawbox=y=270:h=30:color=white:t=fill,drawtext=text='$1':x=8:y=276:fontsize=18"
    local fit="scale=480:270:force_original_aspect_ratio=decrease,pad=480:300:(480-iw)/2:(270-ih)/2:gray"
    case $2 in
    *.wav | *.flac) fit="aformat=channel_layouts=mono|stereo,showwavespic=s=480x270:split_channels=1:scale=sqrt:colors=steelblue[w];
        color=white:s=480x300[p];[p][w]overlay" ;;
    *.mp4) fit="select=gte(t\,1),$fit" ;;
    esac
    ffmpeg -hide_banner -nostdin -loglevel error -y -i "$2" -lavfi "$fit,$caption,setsar=1,format=rgb24" -frames:v 1 \
        "$cells/$((++m)).png" 2>>"$log"
}
m=0
cell "what came in" "$main"
cell "video\: vintage.mp4" "$out/vintage.mp4"
cell "mix-video\: picture-in-picture.mp4" "$out/picture-in-picture.mp4"
cell "scale 371x278\: train.png" "$out/train.png"
cell "audio\: echo.wav" "$out/echo.wav"
cell "mix-audio\: voices.flac, left and right" "$out/voices.flac"
ffmpeg -hide_banner -nostdin -loglevel error -y -i "$cells/%d.png" -vf tile=3x2:padding=6:margin=6:color=gray \
    -frames:v 1 -update 1 "$out/contact-sheet.png" 2>>"$log"

printf '\n== done in %s s; in demo-out/:\n' "$SECONDS"
(cd "$out" && du -h --apparent-size -- contact-sheet.png vintage.mp4 picture-in-picture.mp4 train.png echo.wav voices.flac)
