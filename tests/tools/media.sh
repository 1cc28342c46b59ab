#!/usr/bin/env bash
# media.sh DIRECTORY: gets the clips, photographs and voices that the tool's tests and cookbook use, from
# Debian packages, without installing these.
set -euo pipefail
directory=$1
# shellcheck source=../../cmake/deps.sh
source "$(dirname "${BASH_SOURCE[0]}")/../../cmake/deps.sh"

if [[ -f $directory/complete ]]; then
    exit 0
fi
packages=$directory/packages
unpack_packages "$packages" python3-imageio python3-skimage alsa-utils
images=$packages/usr/lib/python3/dist-packages
cp "$images"/imageio/resources/images/{cockatoo,realshort}.mp4 \
    "$images"/skimage/data/{chelsea,motorcycle_left,logo,rocket}.* \
    "$packages"/usr/share/sounds/alsa/{Front,Rear}_{Left,Right}.wav "$directory"
rm -r "$packages"

cd "$directory"
ffmpeg() { command ffmpeg -hide_banner -nostdin -loglevel error -y "$@"; }
# Two seconds of the cockatoo (20 pictures a second, 4:4:4), small and with a voice; and a green screen.
ffmpeg -i cockatoo.mp4 -i Front_Left.wav -t 2 -vf scale=320:180 -map 0:v -map 1:a -c:v libx264 -crf 12 \
    -pix_fmt yuv444p -c:a aac cam.mp4
ffmpeg -f lavfi -i "color=0x00d000:s=320x180:r=20:d=2[g];color=0xd02020:s=80x80:r=20:d=2[b];
    [g][b]overlay=x=40+t*60:y=50" -c:v libx264 -crf 8 -pix_fmt yuv420p green.mp4
# Speech with a hole in it from 0.5 s to 0.8 s, kept by the times alone.
ffmpeg -i Front_Left.wav -af "asetnsamples=480:p=0,aselect='not(between(t,0.4999,0.7999))'" -c:a pcm_s16le gap.mkv
touch complete
