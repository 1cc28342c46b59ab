#!/usr/bin/env bash
# Builds and runs what uses the installed library: use.sh PREFIX LANGUAGE..., of c, cpp and python.
set -euo pipefail
prefix=$1
shift
cd "$(dirname "$0")"
root=$(realpath ../..)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Where GNUInstallDirs may have put the libraries. The system's own directories need no search path.
for libdir in "$prefix"/lib/*-linux-gnu "$prefix"/lib64 "$prefix"/lib; do
    if [[ -e $libdir/libTelvane_AVFilter.so.1 ]]; then break; fi
done
if [[ $prefix != /usr ]]; then
    export LD_LIBRARY_PATH=$libdir PKG_CONFIG_PATH=$libdir/pkgconfig
fi

for language in "$@"; do
    case $language in
    c)
        read -ra flags < <(pkg-config --cflags Telvane_AVFilter)
        read -ra libraries < <(pkg-config --libs Telvane_AVFilter)
        c99=("${CC:-cc}" -std=c99 -Wall -Wextra -pedantic -Werror "${flags[@]}")
        "${c99[@]}" -o "$work/consumer" c/consumer.c "${libraries[@]}"
        if "${c99[@]}" -M c/consumer.c | grep -E 'lib(av|sw)[a-z]+/'; then
            echo "the C header needs FFmpeg's" >&2
            exit 1
        fi
        "$work/consumer"
        ;;
    cpp)
        cmake -S cpp -B "$work/cpp" -DCMAKE_PREFIX_PATH="$prefix" >"$work/log" || {
            cat "$work/log" >&2
            exit 1
        }
        cmake --build "$work/cpp" >>"$work/log" || {
            cat "$work/log" >&2
            exit 1
        }
        # CMake gave these programs a run path.
        env -u LD_LIBRARY_PATH "$work/cpp/consumer_cpp"
        env -u LD_LIBRARY_PATH "$work/cpp/consumer_c" | sed 's/^/through CMake: /'
        ;;
    python)
        # pip would leave its files in the tree, and Python import from where it stands: from a copy, then.
        cp -r "$root/python" "$work/source"
        "${PYTHON:-python3}" -m pip install --quiet --no-build-isolation --no-deps --no-index \
            --root-user-action=ignore --target "$work/python" "$work/source"
        (cd "$work" && PYTHONPATH=$work/python PYTHONDONTWRITEBYTECODE=1 AV_LOG_FORCE_NOCOLOR=1 \
            "${PYTHON:-python3}" -m unittest discover -s "$root/python/tests")
        ;;
    esac
done
