#!/usr/bin/env bash
# tool_test.sh TOOL MEDIA NAME: one end-to-end test of the command-line tool. Results are compared with
# the ffmpeg command's, or with what is known about the files.
set -euo pipefail
tool=$(realpath "$1")
media=$(realpath "$2")
name=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

run() { "$tool" "$@"; }
ffmpeg() { command ffmpeg -hide_banner -nostdin -loglevel error -y "$@"; }
fail() {
    echo "FAILED: $*" >&2
    exit 1
}
# same WHAT ACTUAL EXPECTED
same() { [[ $2 == "$3" ]] || fail "$1 is \"$2\", not \"$3\""; }
# within WHAT ACTUAL LOW HIGH
within() { awk -v a="$2" -v l="$3" -v h="$4" 'BEGIN { exit !(a != "" && a >= l && a <= h) }' || fail "$1 is $2, not in $3 to $4"; }
# show FILE STREAM ENTRIES: fields of one stream, counted where the file does not say
show() { ffprobe -v error -count_packets -select_streams "$2" -show_entries "stream=$3" -of csv=p=0:nk=1 "$1" | head -n 1; }
# sound FILE [FILTERS]: a checksum of the samples as s16
sound() { ffmpeg -i "$1" -af "${2:-anull}" -c:a pcm_s16le -f md5 -; }
# loudness FILE FROM TO: the peak in dB of a stretch
loudness() {
    command ffmpeg -hide_banner -nostdin -i "$1" -af "atrim=$2:$3,volumedetect" -f null - 2>&1 |
        sed -n 's/.*max_volume: \(.*\) dB/\1/p'
}
copied() { ffmpeg -i "$1" -map "0:$2" -c copy -f streamhash -hash md5 - | sed 's/.*=//'; }
# psnr FILE FILE [FILTERS1] [FILTERS2]: the mean over all pictures of the shorter one, in dB
psnr() {
    command ffmpeg -hide_banner -nostdin -i "$1" -i "$2" -lavfi \
        "[0]${3:-null},settb=1/25,setpts=N[a];[1]${4:-null},settb=1/25,setpts=N[b];[a][b]psnr=shortest=1" -f null - 2>&1 |
        sed -n 's/.*average:\([^ ]*\).*/\1/p' | sed 's/inf/999/'
}
# joined: joined.ts, whose clock jumps far ahead after 2 s and back after 4 s
joined() {
    ffmpeg -f lavfi -i testsrc=s=64x64:d=2 -f lavfi -i sine=d=2 -c:v mpeg2video -c:a mp2 now.ts
    ffmpeg -i now.ts -c copy -output_ts_offset 20000 later.ts
    cat now.ts later.ts now.ts >joined.ts
}
pick() { echo "select=eq(n\\,$1)"; }
# luma FILE FILTERS: the mean luma of the last picture
luma() {
    command ffmpeg -hide_banner -nostdin -loglevel error -i "$1" -vf "$2,signalstats,metadata=print:file=-" -f null - |
        sed -n 's/.*YAVG=//p' | tail -n 1
}
# refused EXIT TEXT ARGUMENT...: the tool ends so, says so, and leaves no file
refused() {
    local expected=$1 text=$2 status=0
    shift 2
    run "$@" >report 2>&1 || status=$?
    same "exit code of $*" "$status" "$expected"
    grep -qe "$text" report || fail "\"$text\" is not in: $(cat report)"
    rm report
    [[ -z $(ls) ]] || fail "$* left $(ls)"
}

case $name in
audio)
    voice=$media/Front_Left.wav
    run audio volume=0.5 "$voice" half.wav
    same "half as loud" "$(sound half.wav)" "$(sound "$voice" volume=0.5)"
    run audio adelay=1000 "$voice" late.flac
    same "a second later, with its end" "$(sound late.flac)" "$(sound "$voice" adelay=1000)"
    run audio 'afade=t=out:st=1:d=0.4' "$voice" fade.wav
    same "a fade, by time" "$(sound fade.wav)" "$(sound "$voice" afade=t=out:st=1:d=0.4)"
    run audio anull "$media/gap.mkv" gap.wav
    same "samples with a gap" "$(show gap.wav a duration_ts)" 71042
    within "the gap's level" "$(loudness gap.wav 0.51 0.79)" -100 -90
    same "the sound after the gap" "$(sound gap.wav atrim=start_sample=38400)" "$(sound "$voice" atrim=start_sample=38400)"
    run audio atempo=2 "$voice" fast.wav
    ffmpeg -i "$voice" -af atempo=2 reference.wav
    same "samples at twice the tempo" "$(show fast.wav a duration_ts)" "$(show reference.wav a duration_ts)"
    run audio atrim=end=0.5 "$voice" short.wav
    same "a description that ends by itself" "$(show short.wav a duration_ts)" 24000
    ffmpeg -i "$voice" -f mp3 - | run audio pan=stereo\|c0=c0 - - --to wav >piped.wav
    same "out of a pipe" "$(show piped.wav a codec_name,channels)" pcm_s16le,2
    within "its right side" "$(loudness piped.wav 0 9)" -30 0
    ffmpeg -i "$voice" -af 'pan=quad|c0=c0|c1=0.5*c0|c2=0.25*c0|c3=0.125*c0' quad.wav
    run audio anull quad.wav places.flac
    same "four channels in their places" "$(sound places.flac) $(show places.flac a channel_layout)" "$(sound quad.wav) quad"
    run audio 'pan=mono|c0=BL' quad.wav place.wav
    same "one of them by its place" "$(sound place.wav)" "$(sound quad.wav 'pan=mono|c0=BL')"
    run audio --length 3 ' [in] atrim=end=0.5 [out] ' "$voice" short.wav
    same "a description that ends before the length" "$(show short.wav a duration_ts)" 24000
    run audio --length 3 anull "$voice" long.wav
    same "silence up to the length" "$(show long.wav a duration_ts)" 144000
    run audio volume=2 "$media/realshort.mp4" clip.mp4
    same "the pictures beside the sound" "$(copied clip.mp4 v)" "$(copied "$media/realshort.mp4" v)"
    within "the sound's length" "$(show clip.mp4 a duration)" 1.17 1.20
    joined
    run audio anull joined.ts joined.wav
    within "seconds of three joined recordings" "$(show joined.wav a duration)" 6.0 6.1
    run audio anull joined.ts joined.mp4
    same "pictures beside them" "$(show joined.mp4 v nb_read_packets | tr -d ,)" 150
    ;;
mix-audio)
    in=(--in "a=$media/Front_Left.wav" --in "b=$media/Rear_Left.wav") # 1.480 s and 1.313 s
    run mix-audio '[a][b]amix=inputs=2:normalize=0' "${in[@]}" sum.wav
    ffmpeg -i "$media/Front_Left.wav" -i "$media/Rear_Left.wav" \
        -lavfi '[1]apad[b];[0][b]amix=inputs=2:normalize=0:duration=first' -c:a pcm_s16le reference.wav
    same "the sum" "$(sound sum.wav)" "$(sound reference.wav)"
    run mix-audio '[a][b]amix=inputs=2:normalize=0' "${in[@]}" --at-end stop sum.wav
    same "until one ends" "$(show sum.wav a duration_ts)" 63010
    ffmpeg -i "$media/Rear_Left.wav" -ar 22050 slow.wav
    run mix-audio '[a]volume=0[x];[x][b]amix=inputs=2:normalize=0,aresample=48000' \
        --in "a=$media/Front_Left.wav" --in b=slow.wav rates.wav
    # Silence goes on in whole samples of the coarser rate.
    within "samples of two rates" "$(show rates.wav a duration_ts)" 71040 71042
    within "what the second rate's end is" "$(loudness rates.wav 1.32 9)" -100 -60
    within "and what comes before" "$(loudness rates.wav 0.3 1.2)" -30 0
    ;;
video)
    clip=$media/realshort.mp4
    run video hflip "$clip" flip.y4m
    ffmpeg -i "$clip" -an -vf hflip reference.y4m
    within "mirrored (dB)" "$(psnr flip.y4m reference.y4m)" 900 999
    same "pictures" "$(show flip.y4m v nb_read_packets)" 36
    run video hflip "$clip" flip.mp4
    within "mirrored and coded (dB)" "$(psnr flip.mp4 reference.y4m)" 38 999
    same "the sound beside the pictures" "$(copied flip.mp4 a)" "$(copied "$clip" a)"
    same "streams and lengths" "$(show flip.mp4 v codec_name,pix_fmt,nb_read_packets)" h264,yuv420p,36
    within "length" "$(show flip.mp4 v duration)" 1.195 1.205
    run video yadif=1 "$clip" twice.y4m
    same "pictures of both fields, the last ones too" "$(show twice.y4m v nb_read_packets)" 72
    run video trim=end=0.5 "$clip" part.y4m
    same "pictures of half a second" "$(show part.y4m v nb_read_packets)" 15
    ffmpeg -i "$clip" -an -r 12.5 -c:v ffv1 slow.mkv
    run video trim=end=0.8 slow.mkv part.y4m
    same "pictures of 0.8 s at 12.5 a second" "$(show part.y4m v nb_read_packets,r_frame_rate)" 25/2,10
    run video decimate "$media/cam.mp4" fewer.y4m
    same "pictures for a filter that asks for the rate" "$(show fewer.y4m v nb_read_packets,r_frame_rate)" 16/1,33
    run video 'color=red:s=320x180:r=10[c];[c][in]overlay=x=10:shortest=1' "$media/cam.mp4" over.y4m
    same "pictures of a source in the description" "$(show over.y4m v nb_read_packets)" 20
    run video setpts=2*PTS "$clip" slow.y4m
    same "pictures at half the speed" "$(show slow.y4m v nb_read_packets)" 72
    within "the same picture at twice the time (dB)" "$(psnr slow.y4m "$clip" "$(pick 40)" "$(pick 20)")" 900 999
    run video --length 0.2 null "$clip" 'series-%02d.png'
    same "a series" "$(echo series-*.png)" "$(printf 'series-%02d.png ' 1 2 3 4 5 6 | sed 's/ $//')"
    for photo in chelsea:451,300 motorcycle_left:741,500; do
        run video hflip "$media/${photo%:*}.png" odd.png
        same "an odd size" "$(show odd.png v width,height)" "${photo#*:}"
        within "its picture (dB)" "$(psnr odd.png "$media/${photo%:*}.png" hflip)" 30 99
        within "its last column (dB)" "$(psnr odd.png "$media/${photo%:*}.png" hflip,crop=1:ih:0 crop=1:ih:0)" 28 99
    done
    run video null "$media/chelsea.png" odd.mp4
    same "no odd sizes in 4:2:0" "$(show odd.mp4 v width,height)" 452,300
    within "the repeated column (dB)" "$(psnr odd.mp4 odd.mp4 crop=2:ih:450:0,extractplanes=y,crop=1:ih:1:0 crop=2:ih:450:0,extractplanes=y,crop=1:ih:0:0)" 35 999
    run video null "$media/rocket.jpg" full.png
    within "a full-range photograph (dB)" "$(psnr full.png "$media/rocket.jpg" format=rgb24 format=rgb24)" 33 99
    ffmpeg -f lavfi -i nullsrc=s=256x64,geq=lum=X:cb=128:cr=128,format=yuvj420p -frames:v 1 -q:v 1 greys.jpg
    run video format=gbrp greys.jpg greys.png
    within "black and white of a full-range picture (dB)" "$(psnr greys.png greys.jpg format=rgb24 format=rgb24)" 50 999
    run video scale=160:-2 "$clip" - --length 0.1 >raw.yuv
    same "raw bytes" "$(stat -c %s raw.yuv)" $((3 * 160 * 120 * 3 / 2))
    joined
    run video null joined.ts joined.mkv
    same "pictures of three joined recordings" "$(show joined.mkv v nb_read_packets)" 150
    within "their length" "$(ffprobe -v error -show_entries format=duration -of csv=p=0 joined.mkv)" 5.9 6.1
    ffmpeg -f lavfi -i testsrc=s=64x64:d=1 -c:v flv last.flv # packets without a duration
    run video null last.flv last.y4m
    same "the last picture of 25" "$(show last.y4m v nb_read_packets)" 25
    ffmpeg -i "$clip" -c:v libx264 -bf 2 -c:a mp3 coded.avi # packets in coded order
    run video null coded.avi shown.mp4
    same "pictures in shown order" "$(show shown.mp4 v nb_read_packets)" 36
    (ffmpeg -re -f lavfi -i testsrc=s=64x64 -f lavfi -i sine -c:v mpeg4 -c:a pcm_s16le -f nut - 2>&- || true) |
        timeout 20 "$tool" video --length 1 null - live.mkv || fail "no end of an endless pipe: $?"
    same "a second of an endless pipe" "$(show live.mkv v nb_read_packets)" 25
    ;;
mix-video)
    ffmpeg -i "$media/realshort.mp4" -an -vf scale=320:180 -c:v ffv1 -frames:v 24 screen.mkv # 0.8 s at 30 a second
    description='[cam]format=yuv420p[c];[c][screen]hstack'
    in=(--in "cam=$media/cam.mp4" --in screen=screen.mkv) # 2 s at 20 a second
    run mix-video "$description" "${in[@]}" hold.mkv
    same "size, pictures" "$(show hold.mkv v width,height,nb_read_packets)" 640,180,60
    same "the sound of the first" "$(copied hold.mkv a)" "$(copied "$media/cam.mp4" a)"
    left=crop=320:180:0:0 right=crop=320:180:320:0
    # The 15th of 30 pictures a second, at 0.5 s, stands beside the 10th of 20.
    within "left at 0.5 s (dB)" "$(psnr hold.mkv "$media/cam.mp4" "$(pick 15),$left,format=yuv420p" "$(pick 10),format=yuv420p")" 38 999
    within "right at 0.5 s (dB)" "$(psnr hold.mkv screen.mkv "$(pick 15),$right" "$(pick 15)")" 38 999
    within "right at 1.9 s: the last picture (dB)" "$(psnr hold.mkv screen.mkv "$(pick 57),$right" "$(pick 23)")" 38 999
    run mix-video "$description" "${in[@]}" --at-end black black.mkv
    within "right at the end" "$(luma black.mkv "$right")" 15.5 16.5
    within "left at the end" "$(luma black.mkv "$left")" 30 230
    run mix-video "$description" "${in[@]}" --at-end stop stop.mp4
    within "pictures until one ends" "$(show stop.mp4 v nb_read_packets)" 24 24
    within "sound until one ends" "$(show stop.mp4 a duration)" 0.75 0.83
    run mix-video '[cam][logo]overlay=10:10' --in "cam=$media/cam.mp4" --in "logo=$media/logo.png" logo.y4m
    same "a still beside a clip" "$(show logo.y4m v nb_read_packets)" 40
    run mix-video '[cam][logo]overlay=10:10' --in "logo=$media/logo.png" --in "cam=$media/cam.mp4" --at-end stop logo.y4m
    same "a still does not end" "$(show logo.y4m v nb_read_packets)" 40
    ;;
scale)
    for photo in chelsea:333,222 motorcycle_left:333,225; do
        run scale 333x "$media/${photo%:*}.png" small.png
        size=${photo#*:}
        same "size" "$(show small.png v width,height,pix_fmt)" "$size,rgb24"
        within "picture (dB)" "$(psnr small.png "$media/${photo%:*}.png" null "scale=${size/,/:}:flags=bilinear,format=rgb24")" 45 999
    done
    run scale --pixel-format rgb24 100x "$media/rocket.jpg" colour.png
    within "full range to RGB (dB)" "$(psnr colour.png "$media/rocket.jpg" null scale=100:67:flags=bilinear,format=rgb24)" 50 999
    ffmpeg -i "$media/cam.mp4" -vf setsar=1 square-pixels.mp4
    run scale 100x100 square-pixels.mp4 shape.mkv
    same "the picture's shape" "$(show shape.mkv v sample_aspect_ratio)" 16:9
    run scale 214x121 "$media/realshort.mp4" small.mp4
    same "coded size, pictures" "$(show small.mp4 v width,height,nb_read_packets)" 214,122,36
    same "the sound" "$(copied small.mp4 a)" "$(copied "$media/realshort.mp4" a)"
    run scale --pixel-format rgb24 x100 "$media/realshort.mp4" --length 0.1 - >raw.rgb
    same "raw bytes" "$(stat -c %s raw.rgb)" $((3 * 133 * 100 * 3))
    ;;
probe)
    run probe --json --audio aresample=8000 --video 'scale=100:-1,fps=50' "$media/cam.mp4" >report
    tr -d ' \n' <report >flat
    for text in '"width":320,"height":180,"format":"yuv444p","rate":"20"' '"video":{"width":100,"height":56,"format":"yuv420p","rate":"50"}' \
        '"audio":{"rate":8000,"channels":1,'; do
        grep -qF "$text" flat || fail "$text is not in $(cat report)"
    done
    run video --explain hflip,scale=100:50 "$media/cam.mp4" not-made.mp4 >graph
    for text in '(hflip)' '100x50' '(buffersink)' 'input "in": 320x180, yuv444p' 'output: 100x50, yuv420p, 20 pictures a second'; do
        grep -qF "$text" graph || fail "$text is not in $(cat graph)"
    done
    [[ ! -e not-made.mp4 ]] || fail "an explanation made a file"
    run mix-audio --json --explain '[a][b]amerge' --in "a=$media/Front_Left.wav" --in "b=$media/Rear_Left.wav" |
        tr -d ' \n' | grep -qF '"output":{"rate":48000,"channels":2' || fail "amerge gives two channels"
    ;;
failures)
    clip=$media/realshort.mp4
    refused 5 "VIDEO_PARSE_GRAPH.*0x80F1005" video nosuchfilter "$clip" out.mp4
    refused 5 "FFmpeg: .*No such filter: 'nosuchfilter'" video nosuchfilter "$clip" out.mp4
    refused 5 "building the graph.*AUDIO_CONFIG_GRAPH" mix-audio '[a]anull' --in "a=$clip" --in "b=$clip" out.wav
    refused 5 '"code": "0x80F0004"' audio --json nosuchfilter "$clip" out.wav
    refused 3 "no-such-file.mp4: No such file" video null no-such-file.mp4 out.mp4
    refused 3 "holds no pictures" video null "$media/Front_Left.wav" out.mp4
    refused 3 "FFmpeg: .*moov atom not found" video null - out.mp4 < <(head -c 3000 "$clip")
    refused 4 "creating /nonexistent/out.mp4" video null "$clip" /nonexistent/out.mp4
    refused 2 "no output format" video null "$clip" out.xyz
    refused 2 "without end" video loop=-1:5 "$clip" out.y4m
    refused 6 "waits for the end" audio areverse "$clip" out.wav
    refused 2 "is required" video null
    refused 2 '"error": .*is required' video --json null
    refused 2 "is no size" scale 64x64zz "$clip" out.mp4
    refused 2 'no option "sample_rat"' audio --from wav:sample_rat=8000 anull "$media/Front_Left.wav" out.wav
    refused 3 "File name too long" probe "$(printf 'x%.0s' {1..300})"
    # No space left: what was written goes away again.
    status=0
    (ulimit -f 20 && trap '' XFSZ && run video null "$clip" out.y4m 2>report) || status=$?
    same "exit code without space" "$status" 4
    (ulimit -f 5 && trap '' XFSZ && run video null "$media/chelsea.png" out.png 2>report) && fail "a cut PNG passed"
    same "what is left" "$(ls)" report
    # A result that stands stays, whole, until the new one is.
    echo old >kept.mp4
    run video nosuchfilter "$clip" kept.mp4 2>report && fail "a wrong description passed"
    same "an older file" "$(cat kept.mp4)" old
    ln -s kept.mp4 link.mp4
    run video null "$clip" link.mp4
    [[ -L link.mp4 && $(show kept.mp4 v nb_read_packets) == 36 ]] || fail "a link was not followed"
    ;;
terminal)
    # Interrupted in the middle of an endless pipe: the file is finished.
    mkfifo pipe
    (
        for ((i = 0; i < 20; ++i)); do ffmpeg -i "$media/Front_Left.wav" -f s16le -; done
        exec sleep 60
    ) >pipe &
    feeder=$!
    "$tool" audio anull pipe --from s16le:sample_rate=48000:ch_layout=mono out.wav >report 2>&1 &
    pid=$!
    for ((i = 0; i < 100; ++i)); do
        compgen -G 'out.wav.*.part' >found && sleep 0.5 && break
        sleep 0.1
    done
    [[ ! -e out.wav ]] || fail "a half-written file stands under its name"
    kill -INT "$pid"
    status=0
    wait "$pid" || status=$?
    kill "$feeder"
    same "exit code when interrupted" "$status" 130
    within "seconds until then" "$(show out.wav a duration)" 1 29.6
    same "no more than these files" "$(echo *)" "found out.wav pipe report"
    run video null "$media/realshort.mp4" -q out.y4m >report 2>&1
    same "messages in a pipe" "$(cat report)" ""
    if script -qec true /dev/null </dev/null >report 2>&1; then
        script -qec "'$tool' video null '$media/cam.mp4' out.mp4" /dev/null </dev/null >report
        grep -q "times as fast as it plays" report || fail "no progress on a terminal: $(cat report)"
    else
        echo "This system has no pseudo-terminals: progress on a terminal was not looked at"
    fi
    ;;
*)
    fail "no test is called $name"
    ;;
esac
