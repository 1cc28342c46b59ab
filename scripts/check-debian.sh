#!/usr/bin/env bash
# Runs the README's two commands, unchanged, in a bare Debian, and uses the library installed there from C, C++
# and Python. As root. Takes some minutes; what is downloaded is kept in build/ for the next time.
#
#   scripts/check-debian.sh RELEASE    for example bookworm, trixie or testing
set -euo pipefail
if [[ $# -ne 1 ]]; then
    echo "usage: scripts/check-debian.sh RELEASE    for example trixie" >&2
    exit 1
fi
release=$1
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source scripts/deps.sh
source scripts/bare-debian.sh

need_packages debootstrap
folder=$PWD/build/bare-$release-checked
fresh_debian "$release" "$folder"
copy_tree "$folder/telvane"
status=0
# shellcheck disable=SC2016  # expanded inside
in_bare "$folder" bash -euo pipefail -c '
    cd /telvane
    ./demo.sh
    ./test.sh | tee test.log
    source scripts/deps.sh
    need_packages "${CONSUMER_PACKAGES[@]}"
    tests/consumers/run.sh build/dev
    version() { dpkg-query -W -f="\${source:Upstream-Version}" "$1"; }
    echo "Debian $(</etc/debian_version), FFmpeg $(version libavutil-dev), g++ $(g++ -dumpfullversion), $(uname -m):" \
        "./demo.sh and ./test.sh passed ($(grep "tests passed" test.log)), installed and used"
' || status=$?
keep_archives "$release" "$folder"
exit "$status"
