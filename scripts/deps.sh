# shellcheck shell=bash disable=SC2034
# Debian packages: lists of what is needed, and ways to get it. Sourced by bash scripts that run
# under "set -o pipefail".

# libavfilter-dev brings libpostproc-dev up to FFmpeg 7; later ones have none.
BUILD_PACKAGES=(
    g++ cmake ninja-build pkg-config
    libavcodec-dev libavdevice-dev libavfilter-dev libavformat-dev libavutil-dev libswresample-dev libswscale-dev
)
TOOL_PACKAGES=(libcli11-dev libfmt-dev)
PYTHON_PACKAGES=(pybind11-dev python3-dev)
TEST_PACKAGES=(libgtest-dev ffmpeg mypy python3-numpy)
CHECK_PACKAGES=(clang clang-format clang-tidy doxygen shellcheck valgrind)
BENCH_PACKAGES=(libyuv-dev libzimg-dev ffmpeg)
CONSUMER_PACKAGES=(make python3-pip python3-pybind11 python3-setuptools python3-wheel)

# apt-get without questions, its many lines counted instead of shown; on failure the last ones.
_apt_get() {
    local log status=0
    log=$(mktemp)
    DEBIAN_FRONTEND=noninteractive apt-get -y -o Acquire::Retries=3 -o APT::Sandbox::User=root \
        -o Dpkg::Use-Pty=0 "$@" 2>&1 | tee "$log" |
        awk '/^(Unpacking|Setting up) / && ++n % 50 == 0 { print "    " n " steps of unpacking and setting up"; fflush() }' ||
        status=$?
    if ((status != 0)); then
        tail -n 20 "$log" >&2
        echo "apt-get $1 failed" >&2
    fi
    rm -f "$log"
    return "$status"
}

# need_packages PACKAGE...: installs those that are missing; says which ones if that needs root.
need_packages() {
    local package missing=()
    for package in "$@"; do
        if [[ $(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) != installed ]]; then
            missing+=("$package")
        fi
    done
    if ((${#missing[@]} == 0)); then
        return 0
    fi
    if ((EUID != 0)); then
        echo "These packages are missing. Install them, then run this again:" >&2
        echo "  sudo apt-get install --no-install-recommends ${missing[*]}" >&2
        return 1
    fi
    echo "Installing ${missing[*]}"
    _apt_get update && _apt_get install --no-install-recommends "${missing[@]}"
}

# unpack_packages DIRECTORY PACKAGE...: downloads packages and unpacks their files, installing nothing.
unpack_packages() {
    local directory=$1 work package status=0
    shift
    if ((EUID == 0)) && ! apt-cache show "$@" >/dev/null 2>&1; then
        _apt_get update || return
    fi
    work=$(mktemp -d)
    (cd "$work" && _apt_get download "$@") && mkdir -p "$directory" || status=$?
    for package in "$work"/*.deb; do
        ((status != 0)) || dpkg-deb -x "$package" "$directory" || status=$?
    done
    rm -rf "$work"
    return "$status"
}
