#!/usr/bin/env bash
# Builds the library and passes its tests on Debian 13 (FFmpeg 7.1), consumers in C, C++ and Python
# included, in a folder under build/.
# As root. Takes some minutes the first time; the folder is kept for the next one.
#
#   tools/check-debian13.sh [ARGUMENT...]   arguments go to test.sh, for example a preset
set -euo pipefail
cd "$(dirname "$0")/.."
. cmake/deps.sh
. tools/bare-debian.sh

need_packages debootstrap ffmpeg
folder=$PWD/build/debian13
bare_debian trixie "$folder"

# Files that have left the tree must leave the copy; what was built stays.
find "$folder/src/telvane" -mindepth 1 -maxdepth 1 ! -name build -exec rm -rf {} + 2>/dev/null || true
copy_tree "$folder/src/telvane"

# Debian 13 has no package with the clips of the tool's tests any more: they come from this Debian 12.
tests/tools/media.sh build/media
media=$folder/src/telvane/build/${1:-dev}/media
mkdir -p "$media"
cp -a build/media/. "$media"

# shellcheck disable=SC2016  # expanded inside
in_bare "$folder" bash -c '
    set -euo pipefail
    cd /src/telvane
    ./test.sh "$@"
    . cmake/deps.sh
    need_packages "${CONSUMER_PACKAGES[@]}"
    tests/consumers/run.sh "build/${1:-dev}"
    for library in libavfilter libavutil libswscale; do
        echo "$library $(pkg-config --modversion "$library")"
    done
    echo "FFmpeg $(dpkg-query -W -f="\${source:Upstream-Version}" libavutil-dev), Debian $(cat /etc/debian_version): passed"
' bash "$@"
