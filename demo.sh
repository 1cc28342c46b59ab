#!/usr/bin/env bash
# Builds the library and the example programs and runs them on real pictures, clips and voices. What
# they make is left in demo-out/.
#
#   ./demo.sh         on clips and voices from Debian packages
#   ./demo.sh FILE    on a picture or clip of yours
set -euo pipefail

if [[ $# -gt 1 || ( $# == 1 && ! -r $1 ) ]]; then
    echo "usage: ./demo.sh [FILE]    FILE: a picture or clip that can be read" >&2
    exit 1
fi
file=${1:+$(realpath -- "$1")}
cd "$(dirname "${BASH_SOURCE[0]}")"
source cmake/deps.sh

root=$PWD
work=$root/build/demo
out=$root/demo-out
bin=$root/build/release/bin
log=$work/log.txt
mkdir -p "$work" "$out"
: >"$log"

step() { printf '[%3d s] %s\n' "$SECONDS" "$1"; }

finish() {
    local status=$?
    rm -f "$work"/*.yuv "$work"/*.rgb "$work"/*.s16 "$work"/*.y4m
    if ((status != 0)); then
        tail -n 15 "$log" >&2
        echo "demo.sh failed" >&2
    fi
}
trap finish EXIT

ffmpeg() { command ffmpeg -hide_banner -nostdin -loglevel error -y "$@"; }
ffprobe() { command ffprobe -loglevel error -of csv=p=0 "$@"; }

# ---- What it needs ------------------------------------------------------------------------------

step "Packages for building and for decoding"
need_packages "${BUILD_PACKAGES[@]}" ffmpeg

step "Library and example programs"
cmake --preset release >>"$log" 2>&1
cmake --build --preset release
: >"$log"

clips=$work/inputs/usr/lib/python3/dist-packages/imageio/resources/images
voices=$work/inputs/usr/share/sounds/alsa
if [[ ! -f $clips/cockatoo.mp4 || ! -f $voices/Rear_Right.wav ]]; then
    step "Clips and voices: downloading python3-imageio and alsa-utils, not installing them"
    unpack_packages "$work/inputs" python3-imageio alsa-utils
fi
main=${file:-$clips/cockatoo.mp4}
inset=$clips/realshort.mp4

# ---- The clip: its size and rate, and one picture out of it --------------------------------------

# A still picture is shown for three seconds. Anything wider than 1920 is made smaller.
if [[ -z $(ffprobe -select_streams v -show_entries stream=index "$main") ]]; then
    echo "There is no picture in $main" >&2
    exit 1
fi
format=$(ffprobe -show_entries format=format_name "$main")
fit="scale='min(1920,iw)':-1"
if [[ $format == *_pipe || $format == image2 || $format == gif ]]; then
    show=(-vf "$fit,loop=loop=-1:size=1,setpts=N/25/TB,fps=25" -t 3)
    from=0
else
    show=(-vf "$fit" -t 20)
    from=$(ffprobe -show_entries format=duration "$main" | awk '{ print ($1 > 1 ? 0.5 : 0) }')
fi

step "Decoding one picture of ${main##*/}"
# Decoding from the start: not every clip's stream can be entered in the middle.
ffmpeg -i "$main" -ss "$from" -vf "$fit" -frames:v 1 -pix_fmt yuv420p -f yuv4mpegpipe \
    -strict -1 "$work/picture.y4m" 2>>"$log"
read -r width height rate < <(head -n 1 "$work/picture.y4m" | tr ' ' '\n' | awk '
    /^W/ { w = substr($0, 2) }
    /^H/ { h = substr($0, 2) }
    /^F/ { split(substr($0, 2), f, ":"); r = int(f[1] / f[2] + 0.5) }
    END { print w, h, (r < 1 || r > 60) ? 25 : r }')
ffmpeg -i "$work/picture.y4m" -f rawvideo "$work/picture.yuv" 2>>"$log"
echo "        ${width}x$height, $rate pictures per second"
even="$(((width + 1) / 2 * 2)) $(((height + 1) / 2 * 2))"
read -r even_width even_height <<<"$even"

# png NAME PIXEL_FORMAT WIDTH HEIGHT: raw pictures from standard input; the last one stays.
png() {
    ffmpeg -f rawvideo -pix_fmt "$2" -s "$3x$4" -i - -update 1 "$out/$1.png" 2>>"$log"
}
# clip OPTION...: a clip as raw pictures at the common rate.
clip() {
    ffmpeg "$@" -r "$rate" -pix_fmt yuv420p -f rawvideo - 2>>"$log"
}

# ---- Filtered and scaled pictures ----------------------------------------------------------------

filter() {
    local name=$1 filters=$2
    step "$name.png: $filters"
    "$bin/video_filter" "$work/picture.yuv" "$width" "$height" "$rate" "$filters" /dev/stdout 2>>"$log" |
        png "$name" yuv420p "$even_width" "$even_height"
}
filter original null
filter mirrored hflip
filter edges edgedetect=low=0.06:high=0.16
filter vintage curves=preset=vintage,vignette

step "motion.png: the mean of twelve pictures, one after another through one filter"
clip -i "$main" "${show[@]}" -frames:v 12 |
    "$bin/video_filter" /dev/stdin "$width" "$height" "$rate" tmix=frames=12 /dev/stdout 2>>"$log" |
    png motion yuv420p "$even_width" "$even_height"

for size in "854 480" "1366 768"; do
    read -r w h <<<"$size"
    step "scaled-${w}x$h.png: rgb24"
    "$bin/video_scale" "$work/picture.yuv" "$width" "$height" /dev/stdout "$w" "$h" 2>>"$log" |
        png "scaled-${w}x$h" rgb24 "$w" "$h"
done

# ---- One clip over another -----------------------------------------------------------------------

step "picture-in-picture.mp4: ${inset##*/} over ${main##*/}"
inset_width=320
inset_height=240
"$bin/video_mix" \
    <(clip -i "$main" "${show[@]}") "$width" "$height" \
    <(clip -stream_loop 15 -i "$inset" -vf "scale=$inset_width:$inset_height") "$inset_width" "$inset_height" \
    "$rate" \
    "[in1]scale=$((width / 4)):-2,pad=iw+8:ih+8:4:4:white[inset];[in0][inset]overlay=W-w-24:H-h-24" \
    /dev/stdout "$even_width" "$even_height" 2>>"$log" |
    ffmpeg -stats -f rawvideo -pix_fmt yuv420p -s "${even_width}x$even_height" -r "$rate" -i - \
        -c:v libx264 -preset veryfast -pix_fmt yuv420p -movflags +faststart "$out/picture-in-picture.mp4"
ffmpeg -ss 0.5 -i "$out/picture-in-picture.mp4" -frames:v 1 -update 1 "$out/picture-in-picture.png" 2>>"$log"

# ---- Sound ---------------------------------------------------------------------------------------

# wav NAME CHANNELS: raw samples from standard input, as a WAV file and a picture of the waveform.
wav() {
    ffmpeg -f s16le -ar 48000 -ac "$2" -i - "$out/$1.wav" 2>>"$log"
    ffmpeg -i "$out/$1.wav" -lavfi "showwavespic=s=1200x480:split_channels=1:scale=sqrt[wave];
        color=white:s=1200x480[paper];[paper][wave]overlay" -frames:v 1 -update 1 "$out/$1.png" 2>>"$log"
}

step "voices.wav, voices.png: four voices a second apart, each in its place; the rear ones duller and softer"
inputs=()
for name in Front_Left Front_Right Rear_Left Rear_Right; do
    ffmpeg -i "$voices/$name.wav" -f s16le -ar 48000 -ac 1 "$work/$name.s16" 2>>"$log"
    inputs+=("$work/$name.s16")
done
places="[in0]pan=stereo|c0=c0[fl];
[in1]adelay=1000,pan=stereo|c1=c0[fr];
[in2]adelay=2000,lowpass=f=3000,pan=stereo|c0=0.6*c0|c1=0.15*c0[rl];
[in3]adelay=3000,lowpass=f=3000,pan=stereo|c0=0.15*c0|c1=0.6*c0[rr];
[fl][fr][rl][rr]amix=inputs=4:normalize=0"
"$bin/audio_mix" 5 "$places" /dev/stdout "${inputs[@]}" 2>>"$log" | wav voices 2

sound=$voices/Front_Left.wav # the default clip's track is silent
if [[ -n $file && -n $(ffprobe -select_streams a -show_entries stream=index "$main") ]]; then
    sound=$main
fi
step "echo.wav, echo.png: the sound of ${sound##*/}, without its lows and with an echo"
ffmpeg -i "$sound" -vn -t 20 -af apad=pad_dur=1 -f s16le -ar 48000 -ac 2 - 2>>"$log" |
    "$bin/audio_filter" /dev/stdin 48000 2 "highpass=f=150,aecho=0.8:0.7:250|400:0.4|0.25" \
        /dev/stdout 2>>"$log" |
    wav echo 2

step "Done. In demo-out/:"
(cd "$out" && du -h --apparent-size -- * | sed 's/^/        /')
