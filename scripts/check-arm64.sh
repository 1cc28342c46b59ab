#!/usr/bin/env bash
# Builds the library and its tests for arm64 in a bare Debian 12 and passes them under emulation. As root. The tool
# and the Python module are left out: their tests need ffmpeg and Python for arm64. What is downloaded is kept in
# build/.
#
#   scripts/check-arm64.sh
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source scripts/deps.sh
source scripts/bare-debian.sh

need_packages debootstrap
folder=$PWD/build/bare-bookworm-arm64
fresh_debian bookworm "$folder"
copy_tree "$folder/telvane"
cat >"$folder/emulate" <<'EMULATE'
#!/bin/bash
# emulate PROGRAM ARGUMENT...: a program that starts itself again, as tests of exits do, runs its argv[0], which this
# system cannot: a script that can stands there.
if [[ ! -x $1.again ]]; then
    printf '#!/bin/bash\nexec /emulate %q "$@"\n' "$1" >"$1.$$"
    chmod +x "$1.$$"
    mv "$1.$$" "$1.again"
fi
exec qemu-aarch64 -0 "$1.again" "$@"
EMULATE
chmod +x "$folder/emulate"
status=0
# shellcheck disable=SC2016  # expanded inside
in_bare "$folder" bash -euo pipefail -c '
    cd /telvane
    source scripts/deps.sh
    packages=(qemu-user)
    for package in "${BUILD_PACKAGES[@]}" libgtest-dev; do
        case $package in
            g++) packages+=(g++-aarch64-linux-gnu) ;;
            lib*) packages+=("$package:arm64") ;;
            *) packages+=("$package") ;;
        esac
    done
    dpkg --add-architecture arm64
    need_packages "${packages[@]}"
    export PKG_CONFIG_LIBDIR=/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig
    cmake --preset dev --log-level=WARNING -DTELVANE_BUILD_TOOLS=OFF -DTELVANE_BUILD_PYTHON=OFF \
        -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=aarch64 -DCMAKE_C_COMPILER=aarch64-linux-gnu-gcc \
        -DCMAKE_CXX_COMPILER=aarch64-linux-gnu-g++ -DCMAKE_CROSSCOMPILING_EMULATOR=/emulate
    cmake --build --preset dev
    ctest --preset dev --progress -j 2 | tee test.log
    echo "Debian $(</etc/debian_version), FFmpeg $(dpkg-query -W -f="\${source:Upstream-Version}" libavutil-dev:arm64)," \
        "$(aarch64-linux-gnu-g++ -dumpmachine) under $(qemu-aarch64 --version | head -n 1): $(grep "tests passed" test.log)"
' || status=$?
keep_archives bookworm "$folder"
exit "$status"
