#!/usr/bin/env bash
# tool_test.sh TOOL MEDIA NAME: one end-to-end test of the command-line tool. What comes out is compared with
# what the ffmpeg command makes of the same files by the same description, or with what is known of the files.
set -euo pipefail
tool=$(realpath "$1")
media=$(realpath "$2")
name=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

run() { "$tool" "$@" -q; }
ffmpeg() { command ffmpeg -hide_banner -nostdin -loglevel error -y "$@"; }
# 7.1 has faults of its own: its acrossfade loses sound by chance, its setpts forgets the rate.
unless_7() { [[ $(command ffmpeg -version | head -n 1) == *" version 7."* ]] || "$@"; }
fail() {
    echo "FAILED: $*" >&2
    exit 1
}
# same WHAT ACTUAL EXPECTED: and there is something
same() { [[ $2 == "$3" && -n $2 ]] || fail "$1 is \"$2\", not \"$3\""; }
# show FILE STREAM ENTRIES: fields of one stream, counted where the file does not say
show() { ffprobe -v error -count_packets -select_streams "$2" -show_entries "stream=$3" -of csv=p=0:nk=1 "$1" | head -n 1; }
# pictures FILE: when each is shown, and its checksum
pictures() {
    # "tv" is what YUV without a word about it is; FFmpeg 9 says it where earlier versions say nothing.
    ffprobe -v error -select_streams V:0 -show_entries frame=pts_time,color_space,color_range -of csv=p=0 "$1" |
        sed 's/,tv,/,unknown,/; s/,*$//; /^$/d'
    ffmpeg -i "$1" -map 0:V:0 -fps_mode passthrough -f framemd5 - | sed '/^#/d; s/.*,//'
}
shown() { ffprobe -v error -select_streams v -show_entries frame=pts_time -of csv=p=0 "$1" | sed 's/,*$//; /^$/d'; }
sound() { ffmpeg -i "$1" -map 0:a:0 -f md5 - && show "$1" a:0 codec_name,sample_rate,channels,channel_layout; }
# turned FILE: the clip with a mark to be turned, as FFmpeg 5 and 7 take it
turned() {
    ffmpeg -display_rotation 90 -i "$media/clip.mp4" -c copy "$1" 2>report ||
        ffmpeg -i "$media/clip.mp4" -c copy -metadata:s:v rotate=90 "$1"
}
copied() { ffmpeg -i "$1" -map "0:$2" -c copy -f streamhash -hash md5 - | sed 's/.*=//'; }
# equal LOOK OUTPUT WHAT: by pictures or sound, with ffmpeg's output of the same ending
equal() {
    same "$3 as $2" "$($1 "$2")" "$($1 "reference.${2##*.}")"
    rm "$2" "reference.${2##*.}"
}
# video DESCRIPTION FILE OUTPUT [ENCODER OPTION...]: beside ffmpeg
video() {
    run video "$1" "$2" "$3" --pass none "${@:4}"
    ffmpeg -i "$2" -map 0:V:0 -vf "$1" "${@:4}" "reference.${3##*.}"
    equal pictures "$3" "$1 of $2"
}
# audio DESCRIPTION FILE OUTPUT [ENCODER OPTION...]
audio() {
    run audio "$1" "$2" "$3" --pass none "${@:4}"
    ffmpeg -i "$2" -map 0:a:0 -af "$1" "${@:4}" "reference.${3##*.}"
    equal sound "$3" "$1 of $2"
}
# mix KIND DESCRIPTION OUTPUT FILE...: the files are called a, b ...
mix() {
    local kind=$1 description=$2 output=$3 letters=abcd inputs=() theirs=() i=0 read=pictures
    local text=$description
    [[ $kind == video ]] || read=sound
    shift 3
    for file in "$@"; do
        inputs+=(--in "${letters:i:1}=$file")
        theirs+=(-i "$file")
        text=${text//"[${letters:i:1}]"/"[$i:${kind:0:1}]"}
        i=$((i + 1))
    done
    run "mix-$kind" "$description" "${inputs[@]}" "$output" --pass none
    ffmpeg "${theirs[@]}" -lavfi "$text" "reference.${output##*.}"
    equal "$read" "$output" "$description of $*"
}
# refused EXIT TEXT ARGUMENT...: the tool ends so, says so in its first line, and leaves no file
refused() {
    local expected=$1 text=$2 status=0
    shift 2
    run "$@" >report 2>&1 || status=$?
    same "exit code of $*" "$status" "$expected"
    grep -qe "$text" report || fail "\"$text\" is not in: $(cat report)"
    grep -qe "Parsed_" report && fail "a name of no user's in: $(cat report)"
    rm report
    [[ -z $(ls -A) ]] || fail "$* left $(ls -A)"
}

case $name in
sound)
    voice=$media/Front_Left.wav
    ffmpeg -i "$voice" -ar 12345 -c:a pcm_f32le odd.wav
    ffmpeg -i "$voice" -af 'pan=5.1|c0=c0|c1=0.5*c0|c2=0.3*c0|c3=0.2*c0|c4=0.1*c0|c5=0.7*c0' -c:a flac places.flac
    for description in volume=0.5 areverse dynaudnorm atempo=1.3 adelay=300 afade=out:st=1:d=0.4 apad=pad_dur=0.5 \
        aresample=22050 aecho=0.8:0.7:250:0.4 loudnorm atrim=end=0.5 compand; do
        audio "$description" "$voice" sound.wav
    done
    audio volume=0.5 odd.wav kept.wav -c:a pcm_f32le
    same "the format of floats at 12,345 Hz" "$(run audio anull odd.wav own.wav && show own.wav a codec_name,sample_rate)" pcm_f32le,12345
    audio 'pan=stereo|c0=BL|c1=BR' places.flac places.wav
    audio anull places.flac same.flac
    audio volume=2 "$media/clip.mp4" sound.mp3 -b:a 96k
    run audio anull "$media/gap.mkv" gap.wav # kept by its times; FFmpeg needs a filter for that
    ffmpeg -i "$media/gap.mkv" -af aresample=async=1:first_pts=0:min_hard_comp=0.01 reference.wav
    same "sound with a hole" "$(sound gap.wav)" "$(sound reference.wav)"
    for duration in longest shortest first; do
        mix audio "[b][a]amix=duration=$duration:normalize=0" mix.wav "$voice" "$media/Rear_Left.wav"
    done
    unless_7 mix audio '[a][b]acrossfade=d=0.5' mix.wav "$voice" "$media/Rear_Left.wav"
    mix audio '[a][b]concat=v=0:a=1' mix.flac "$voice" "$media/Rear_Left.wav"
    mix audio '[a][b]amerge' mix.wav "$voice" "$voice"
    run audio --length 3 anull "$voice" long.wav
    same "silence up to the length" "$(show long.wav a duration_ts)" 144000
    run audio volume=0.5 - - --to wav <"$voice" 2>/dev/null | ffmpeg -i - piped.wav
    same "a pipe" "$(sound piped.wav)" "$(ffmpeg -i "$voice" -af volume=0.5 p.wav && sound p.wav)"
    ;;
pictures)
    ffmpeg -i "$media/cam.mp4" -an -vf scale=161:91,format=rgb48be -frames:v 1 deep.png
    ffmpeg -i "$media/logo.png" -vf scale=97:65 alpha.png
    ffmpeg -i "$media/clip.mp4" -an -vf format=yuv420p10 -c:v ffv1 ten.mkv
    ffmpeg -i "$media/clip.mp4" -an -vf fps=50,tinterlace=interleave_bottom,setfield=bff -c:v ffv1 -field_order bb bff.mkv
    ffmpeg -i "$media/clip.mp4" -an -vf scale=out_color_matrix=bt709:out_range=tv -colorspace bt709 -color_range tv -c:v ffv1 709.mkv
    turned turned.mp4
    clip=$media/clip.mp4
    for description in reverse tile=2x2 fps=10 trim=end=0.5 thumbnail=9 yadif=1 fade=out:st=0.6:d=0.4 \
        "select='not(mod(n,3))'" tmix=frames=5 decimate; do
        video "$description" "$clip" out.y4m
    done
    ffmpeg -itsoffset 0.1 -i "$clip" -c copy late.mkv
    unless_7 video decimate late.mkv out.y4m
    unless_7 video 'setpts=2*PTS' "$clip" out.y4m
    video scale=160:-2 "$clip" out.mp4 -preset veryfast -crf 18
    video hflip "$media/cam.mp4" out.mkv -c:v ffv1
    for file in alpha.png deep.png "$media/train.png" "$media/dogs.jpg"; do
        video null "$file" out.png
    done
    video hflip "$media/dogs.jpg" out.jpg
    video hflip ten.mkv out.mkv -c:v ffv1
    same "ten bits" "$(run video hqdn3d ten.mkv ten.mp4 && show ten.mp4 v pix_fmt)" yuv420p10le
    for description in separatefields yadif=deint=interlaced; do video "$description" bff.mkv out.y4m; done
    video format=gbrp,negate 709.mkv out.mkv -c:v ffv1 -pix_fmt yuv420p
    video colorspace=bt601-6-625 709.mkv out.mkv -c:v ffv1
    video hflip turned.mp4 out.y4m
    # None is lost of a rate that varies, nor when it is shown.
    run video null "$media/dog.mp4" dog.mp4 -preset ultrafast
    same "a phone's pictures" "$(shown dog.mp4)" "$(shown "$media/dog.mp4")"
    mix video '[a][b]overlay=10:10' out.y4m "$clip" alpha.png
    mix video '[a][b]overlay=10:10:shortest=1' out.y4m "$clip" "$media/green.mp4"
    mix video '[a]scale=96:64,setsar=1[x];[b]scale=96:64,setsar=1[y];[x][y]concat' out.y4m "$clip" "$clip"
    run scale x100 "$clip" --length 0.2 'series-%02d.png'
    same "a series" "$(echo series-*.png) $(show series-06.png v width,height,pix_fmt)" \
        "$(printf 'series-%02d.png ' 1 2 3 4 5 6)133,100,rgb24"
    run video null "$clip" --at 0.5 one.png
    same "the picture of a time" "$(pictures one.png | tail -n 1)" \
        "$(ffmpeg -i "$clip" -vf "select=eq(n\,15)" -frames:v 1 r.png && pictures r.png | tail -n 1)"
    run scale 333x "$media/train.png" - -pix_fmt rgb24 >raw.rgb
    same "raw bytes" "$(stat -c %s raw.rgb)" $((3 * 333 * 222))
    (ffmpeg -re -f lavfi -i testsrc=s=64x64 -c:v mpeg4 -f nut - 2>&- || true) |
        timeout 20 "$tool" video --length 1 null - live.mkv 2>/dev/null >&2 || fail "no end of an endless pipe: $?"
    same "a second of an endless pipe" "$(show live.mkv v nb_read_packets)" 25
    ;;
belongs)
    printf '1\n00:00:00,100 --> 00:00:00,900\nHello\n' >text.srt
    printf ';FFMETADATA1\ntitle=A title\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=500\ntitle=One\n' >tags
    ffmpeg -i "$media/clip.mp4" -i "$media/Front_Left.wav" -i text.srt -i tags -map 0:a -map 0:v -map 1 -map 2 -map_metadata 3 \
        -c:v copy -c:a aac -c:s srt -metadata:s:a:0 language=deu -metadata:s:a:1 language=fra -disposition:a:1 default \
        -attach "$media/logo.png" -metadata:s:t mimetype=image/png full.mkv
    facts() {
        ffprobe -v error -show_entries stream=codec_type:stream_tags=language:stream_disposition=default -of csv=p=0 "$1"
        ffprobe -v error -show_chapters -show_entries chapter_tags=title:format_tags=title -of csv=p=0 "$1"
    }
    run video hflip full.mkv out.mkv
    same "what belongs to a file" "$(facts out.mkv)" "$(facts full.mkv)"
    for stream in a:0 a:1 s:0; do same "$stream" "$(copied out.mkv $stream)" "$(copied full.mkv $stream)"; done
    "$tool" audio --stream a:1 volume=0.5 full.mkv out.mp4 >report 2>&1
    grep -q "left out: subtitle (subrip)" report || fail "nobody says what was left out: $(cat report)"
    same "the pictures beside the sound" "$(copied out.mp4 v:0)" "$(copied full.mkv v:0)"
    same "the other sound" "$(copied out.mp4 a:0)" "$(copied full.mkv a:0)"
    turned turned.mp4
    run audio volume=0.5 turned.mp4 still-turned.mp4
    "$tool" probe still-turned.mp4 | grep -q "rotation of -\?90" || fail "the mark to be turned is lost"
    "$tool" probe full.mkv >report
    for text in '^video takes stream 1' '(fra): Audio' 'start 0.000000, end 0.500000' 'title *: A title'; do
        grep -qe "$text" report || fail "$text is not in $(cat report)"
    done
    ;;
failures)
    clip=$media/clip.mp4
    refused 5 'No such filter: .nosuchfilter' video nosuchfilter "$clip" out.mp4
    refused 5 'labels here: \[in\] and \[out\]' video '[foo]hflip' "$clip" out.mp4
    refused 5 'does not use \[b\]' mix-audio '[a]anull' --in "a=$clip" --in "b=$clip" out.wav
    refused 5 'fps: ' video fps=x "$clip" out.mp4
    refused 5 'cannot know "pict_type"' video "select='eq(pict_type,I)'" "$clip" out.mp4
    refused 3 'no-such-file.mp4: No such file' video null no-such-file.mp4 out.mp4
    refused 3 'holds no pictures' video null "$media/Front_Left.wav" out.mp4
    refused 3 'moov atom not found' video null - out.mp4 < <(head -c 3000 "$clip")
    refused 4 '/nonexistent/out.mp4' video null "$clip" /nonexistent/out.mp4
    refused 4 'with --pass none' video null "$clip" out.webm
    refused 2 'does not tell an output format' video null "$clip" out.xyz
    refused 2 'without end' video scale=16:16,loop=-1:5 "$clip" out.y4m
    refused 2 'no command "vidio"; say first what to do: audio, ' vidio null "$clip" out.mp4
    refused 2 '-nosuch: neither' video null "$clip" out.mp4 -nosuch 3
    refused 2 'is no size' scale 64x64zz "$clip" out.mp4
    refused 2 'no option "sample_rat"' audio --from wav:sample_rat=8000 anull "$media/Front_Left.wav" out.wav
    # No space left: what was written goes away again.
    status=0
    (ulimit -f 20 && trap '' XFSZ && run video null "$clip" out.y4m 2>report) || status=$?
    same "exit code without space, and what is left" "$status $(ls -A)" "4 report"
    # What stands stays, unless it is said; then it keeps its mode, and a link its file.
    cp "$clip" in.mp4
    ln in.mp4 hard.mp4
    ln -s in.mp4 link.mp4
    for file in in.mp4 hard.mp4 link.mp4; do
        run video null in.mp4 "$file" -y 2>report && fail "$file, an input, was overwritten"
    done
    cmp in.mp4 "$clip"
    ffmpeg -i "$clip" -frames:v 3 s-%d.png
    run video null s-%d.png s-%d.png -y 2>report && fail "members of a series were overwritten"
    echo old >kept.mp4
    chmod 640 kept.mp4
    run video null "$clip" kept.mp4 2>report && fail "a file was overwritten"
    same "an older file" "$(cat kept.mp4)" old
    ln -s kept.mp4 to-kept.mp4
    run video null "$clip" to-kept.mp4 --force
    same "mode, link, pictures" "$(stat -c %a kept.mp4) $(readlink to-kept.mp4) $(show kept.mp4 v nb_read_packets)" "640 kept.mp4 $(show "$clip" v nb_read_packets)"
    # Cut files give what is in them, and are told apart.
    ffmpeg -i "$clip" -c copy whole.mkv
    head -c "$(($(stat -c %s whole.mkv) / 3))" whole.mkv >cut.mkv
    status=0
    run video hflip cut.mkv cut.y4m 2>report || status=$?
    ffmpeg -i cut.mkv -vf hflip reference.y4m 2>/dev/null
    same "a cut file" "$status $(pictures cut.y4m)" "7 $(pictures reference.y4m)"
    "$tool" video null "$clip" /dev/stdout --to y4m 2>report | cmp - <(run video null "$clip" - --to y4m 2>/dev/null)
    ;;
terminal)
    # Interrupted in the middle of an endless pipe: the file is finished. Twice: nothing is left.
    mkfifo pipe
    for times in 1 2; do
        rm -f out.wav
        (
            for ((i = 0; i < 20; ++i)); do ffmpeg -i "$media/Front_Left.wav" -f s16le - 2>&3; done
            exec sleep 60
        ) >pipe 3>/dev/null 2>&3 &
        feeder=$!
        "$tool" audio anull pipe --from s16le:sample_rate=48000:ch_layout=mono out.wav >report 2>&1 &
        pid=$!
        for ((i = 0; i < 100; ++i)); do
            compgen -G '.telvane*.part' >found && sleep 0.5 && break
            sleep 0.1
        done
        [[ ! -e out.wav ]] || fail "a half-written file stands under its name"
        for ((i = 0; i < times; ++i)); do kill -TERM "$pid"; done
        status=0
        wait "$pid" || status=$?
        kill "$feeder" 2>/dev/null || true
        [[ $status == 130 || $status == 143 ]] || fail "exit code when interrupted: $status"
        [[ $times == 2 ]] || awk -v n="$(show out.wav a duration)" 'BEGIN { exit !(n > 0.9) }' || fail "what was done is lost"
        [[ -z $(compgen -G '.telvane*') ]] || fail "something is left: $(ls -A)"
    done
    run video null "$media/clip.mp4" out.y4m >report 2>&1
    [[ ! -s report ]] || fail "messages in a pipe: $(cat report)"
    ;;
*)
    fail "no test is called $name"
    ;;
esac
