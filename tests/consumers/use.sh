#!/usr/bin/env bash
# Uses the installed library in each WAY of c, cpp, tool, and last python (the installed module) and pip (built
# anew): use.sh PREFIX WAY...
set -euo pipefail
prefix=$1
cd "$(dirname "${BASH_SOURCE[0]}")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

libdir=$(dirname "$(find "$prefix"/lib* -name libTelvane_AVFilter.so.1 -print -quit)")
export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir:${LD_LIBRARY_PATH-}

head -c $((3 * 64 * 48 * 3 / 2)) /dev/urandom >"$work/in" # three pictures

for way in "${@:2}"; do
    case $way in
    c)
        read -ra flags < <(pkg-config --cflags --libs Telvane_AVFilter)
        for source in ../../examples/*.c; do
            "${CC:-cc}" -std=c99 -Wall -Wextra -pedantic -Werror -MD -o "$work/$(basename "$source" .c)" "$source" "${flags[@]}"
        done
        if grep -E 'lib(av|sw)[a-z]+/' "$work"/*.d; then exit 1; fi # the C header needs none of FFmpeg's
        once() { "$work/video_filter" "$1" 64 48 25 hflip "$2"; }
        ;;
    cpp)
        cmake -S . -B "$work/cpp" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
        cmake --build "$work/cpp" >/dev/null
        once() { env -u LD_LIBRARY_PATH "$work/cpp/video_filter" "$1" 64 48 25 hflip "$2"; }
        ;;
    tool) once() { env -u LD_LIBRARY_PATH "$prefix/bin/telvane-avfilter" video hflip "$1" "$2" -y -q --to raw --from rawvideo:video_size=64x48; } ;;
    python) modules=$prefix/lib/python3/dist-packages ;;
    pip)
        cp -r ../../python "$work/source" # pip would leave its files in the tree
        "${PYTHON:-python3}" -m pip install -q --no-build-isolation --no-deps --no-index --target "$work/modules" "$work/source"
        modules=$work/modules
        ;;
    esac
    if [[ -n ${modules-} ]]; then
        PYTHONPATH=$modules PYTHONDONTWRITEBYTECODE=1 "${PYTHON:-python3}" -m unittest discover -s ../../python/tests
        continue
    fi
    # Mirrored twice, the pictures are themselves again; mirrored once, they are not.
    once "$work/in" "$work/one"
    once "$work/one" "$work/two"
    cmp "$work/in" "$work/two"
    if cmp -s "$work/in" "$work/one"; then exit 1; fi
    echo "$way: mirrors pictures"
done
