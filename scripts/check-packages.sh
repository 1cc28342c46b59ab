#!/usr/bin/env bash
# Makes the Debian packages, has lintian judge them, installs them in a bare Debian of this machine's
# release, and builds and runs programs in C, C++ and Python against them there. As root.
# The bare Debian and what was downloaded for it are kept in build/ for the next time. Packages name who
# makes them: give DEBFULLNAME and DEBEMAIL in the environment.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
: "${DEBFULLNAME:?who makes the packages}" "${DEBEMAIL:?at which address}"
source scripts/deps.sh
source scripts/bare-debian.sh

release=$(. /etc/os-release && echo "$VERSION_CODENAME")
build=$PWD/build/packages
used=$PWD/build/bare-$release-packages
version=$(sed -n 's/^#define TELVANE_AVFILTER_VERSION_[MP][A-Z]* //p' include/Telvane_AVFilter.h | paste -sd.)

need_packages "${BUILD_PACKAGES[@]}" "${TOOL_PACKAGES[@]}" "${PYTHON_PACKAGES[@]}" debootstrap dpkg-dev file lintian

echo "== packages"
eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
cmake -S . -B "$build" -G Ninja --log-level=WARNING -DCMAKE_BUILD_TYPE=None -DCMAKE_INSTALL_PREFIX=/usr \
    -DTELVANE_BUILD_TESTS=OFF -DTELVANE_BUILD_EXAMPLES=OFF -DTELVANE_BUILD_TOOLS=ON \
    -DTELVANE_BUILD_PYTHON=ON -DPython_EXECUTABLE=/usr/bin/python3 \
    -DCPACK_PACKAGE_CONTACT="$DEBFULLNAME <$DEBEMAIL>"
cmake --build "$build" | tail -n 1
rm -f "$build"/*.deb
(cd "$build" && cpack >cpack.log 2>&1) || {
    cat "$build/cpack.log" >&2
    exit 1
}
packages=("$build"/*telvane-avfilter*_"$version"_*.deb)
printf '%s\n' "${packages[@]##*/}"

echo "== lintian"
lintian --allow-root --fail-on error,warning "${packages[@]}"

echo "== installing in a bare Debian"
fresh_debian "$release" "$used"
mkdir -p "$used/packages"
cp "${packages[@]}" "$used/packages"
copy_tree "$used/source"
get="apt-get -qq -y -o Dpkg::Use-Pty=0 -o APT::Sandbox::User=root --no-install-recommends"
in_bare "$used" bash -euo pipefail -c "
    $get update
    $get install /packages/*.deb ffmpeg gcc libc6-dev pkg-config >/dev/null
    if ls -d /usr/include/*/libav* 2>/dev/null; then
        echo 'FFmpeg headers are there: this would show nothing about C' >&2
        exit 1
    fi
    ldconfig -p | grep Telvane
    /source/tests/consumers/use.sh /usr c tool python

    zgrep -q SYNOPSIS /usr/share/man/man1/telvane-avfilter.1.gz

    $get install cmake g++ libavutil-dev make python3-dev python3-pip python3-pybind11 python3-setuptools python3-wheel >/dev/null
    /source/tests/consumers/use.sh /usr cpp pip

    $get purge '^libtelvane-.*' telvane-avfilter python3-telvane-avfilter >/dev/null
    if ldconfig -p | grep Telvane || find /usr -iname '*telvane*' | grep .; then
        echo 'these stayed when the packages went' >&2
        exit 1
    fi
" 2>&1 | tee "$build/use.log"
keep_archives "$release" "$used"
rm -rf "$used"
echo "packages of version $version: made, judged, installed, used and removed on $release"
