#!/usr/bin/env bash
# media.sh DIRECTORY: gets the clips, photographs and voices that the demo and the tool's tests use, from
# Debian packages, without installing these. What cannot be had there is made by FFmpeg in the same shape.
set -euo pipefail
directory=$1
# shellcheck source=scripts/deps.sh
source "$(dirname "${BASH_SOURCE[0]}")/deps.sh"

if [[ -f $directory/complete ]]; then
    exit 0
fi
packages=$directory/packages
mkdir -p "$packages"
for package in forensics-samples-files alsa-utils; do
    unpack_packages "$packages" "$package" ||
        echo "$package cannot be had: going on with pictures and sound made by FFmpeg"
done

cd "$directory"
ffmpeg() { command ffmpeg -hide_banner -nostdin -loglevel error -y "$@"; }
# take NAME SOURCE ARGUMENT...: the file of a package, or what ffmpeg makes of the arguments
take() {
    local name=$1 source=$2
    shift 2
    if [[ -e packages/$source ]]; then cp "packages/$source" "$name"; else ffmpeg "$@" "$name"; fi
}
samples=usr/share/forensics-samples/original-files
sounds=usr/share/sounds/alsa
# A dog, by a phone: 41 pictures of 1920x1080 at a variable rate, BT.709, with stereo sound. A speaker beside
# his terminal: 8 s of 1280x720. Photographs are JPEG of full range, 4:2:0 and 4:4:4.
take dog.mp4 $samples/movie1/VID_20191220_170832.mp4 -f lavfi -i testsrc2=s=1920x1080 -f lavfi -i anoisesrc=a=0.1 \
    -t 1.52 -vf "setpts=PTS+gt(N\,0)*0.15/TB" -fps_mode vfr -ac 2 -pix_fmt yuv420p -colorspace bt709 -color_range tv
take speaker.mp4 $samples/movie2/movie-hello.mp4 -f lavfi -i "mandelbrot=s=1280x720:r=30" \
    -f lavfi -i anoisesrc=a=0.1 -t 8.3 -c:v libx264 -c:a aac -ac 2 -pix_fmt yuv420p
take dogs.jpg $samples/pic1/IMG-20191006-WA0002.jpg -f lavfi -i "mandelbrot=s=1024x768,gblur=2" -frames:v 1 -pix_fmt yuvj420p
take train.jpg $samples/pic1/IMG_1054.JPG -f lavfi -i "mandelbrot=s=1280x960,gblur=2" -frames:v 1 -pix_fmt yuvj444p
take logo.png $samples/pic2/d-debian.png -f lavfi -i "testsrc2=s=800x600:alpha=0" -frames:v 1 -pix_fmt rgba
for voice in Front_Left:71042 Front_Right:73473 Rear_Left:63010 Rear_Right:73218; do
    take "${voice%:*}.wav" "$sounds/${voice%:*}.wav" -f lavfi -i "anoisesrc=r=48000:a=0.2:seed=${voice#*:}" \
        -af "tremolo=f=4,atrim=end_sample=${voice#*:}" -c:a pcm_s16le
done
rm -r packages

# Small ones: odd sizes in RGB; the dog, 36 pictures of 4:3; the speaker, two seconds of 4:4:4 at 20 a second
# with a voice that ends earlier; and a green screen.
ffmpeg -i train.jpg -vf crop=1280:852,scale=451:300,format=rgb24 train.png
ffmpeg -ss 0.2 -i dog.mp4 -vf setpts=PTS-STARTPTS,fps=30,crop=1440:1080,scale=320:240 -frames:v 36 -t 1.2 -c:v libx264 -crf 18 -c:a aac \
    -ac 1 clip.mp4
ffmpeg -i speaker.mp4 -i Front_Left.wav -t 2 -vf fps=20,crop=252:142:114:100,scale=320:180 -map 0:v -map 1:a \
    -c:v libx264 -crf 12 -pix_fmt yuv444p -c:a aac cam.mp4
ffmpeg -f lavfi -i "color=0x00d000:s=320x180:r=20:d=2[g];color=0xd02020:s=80x80:r=20:d=2[b];
    [g][b]overlay=x=40+t*60:y=50" -c:v libx264 -crf 8 -pix_fmt yuv420p green.mp4
# Speech with a hole in it from 0.5 s to 0.8 s, kept by the times alone.
ffmpeg -i Front_Left.wav -af "asetnsamples=480:p=0,aselect='not(between(t,0.4999,0.7999))'" -c:a pcm_s16le gap.mkv
touch complete
