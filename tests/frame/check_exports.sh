#!/bin/sh
# What the built libraries offer and need: check_exports.sh HEADER MAJOR_VERSION LIBRARY [BASE_LIBRARY]
set -u
header=$1 version=$2 library=$3 baselib=${4-}
failed=0

# same WHAT EXPECTED ACTUAL: two lists of lines, the first of which is not empty.
same()
{
    if [ -z "$2" ] || [ "$2" != "$3" ]; then
        printf '%s differ\nexpected:\n%s\nfound:\n%s\n' "$1" "$2" "$3"
        failed=1
    fi
}
symbols() { nm -D "$1" "$2" | sed 's/.* //; s/@.*//' | sort; }
dynamic() { readelf -d "$2" | sed -n "s/.*($1).*\[\(.*\)\]/\1/p"; }

# The header's declarations are what carries the visibility attribute after the preprocessor.
declared=$("${CXX:-c++}" -E -P -x c++ "$header" | tr '\n;{' ' \n\n' | grep 'visibility("default")' |
    sed 's/__attribute__((visibility("default")))//; s/(.*//; s/ *$//; s/.* //' | sort)
same "the header's declarations and the exports" "$declared" "$(symbols --defined-only "$library")"
same "number of exports" 24 "$(symbols --defined-only "$library" | wc -l)"
same "SONAME" "libTelvane_AVFilter.so.$version" "$(dynamic SONAME "$library")"
same "calls into the base library" BaseLib_OperatorHandle_Create \
    "$(symbols --undefined-only "$library" | grep BaseLib)"
if [ -n "$baselib" ]; then
    same "exports of the base library" BaseLib_OperatorHandle_Create "$(symbols --defined-only "$baselib")"
    same "SONAME of the base library" "libTelvane_BaseLib.so.$version" "$(dynamic SONAME "$baselib")"
fi

names="Telvane_BaseLib avfilter avutil swscale avcodec avformat avdevice swresample"
pkg-config --exists libpostproc && names="$names postproc"
for name in $names; do
    dynamic NEEDED "$library" | grep -q "^lib$name\.so" || { echo "does not need lib$name" && failed=1; }
done

# The only FFmpeg functions that the library may call.
allowed="avfilter_graph_alloc avfilter_graph_free avfilter_get_by_name avfilter_graph_create_filter
avfilter_free avfilter_inout_alloc avfilter_inout_free avfilter_graph_parse_ptr avfilter_graph_config
av_buffersrc_add_frame av_buffersink_get_frame av_frame_alloc av_frame_free av_frame_get_buffer
av_frame_unref av_channel_layout_default av_channel_layout_describe av_get_sample_fmt_name
av_sample_fmt_is_planar av_samples_get_buffer_size av_image_alloc av_image_fill_arrays
av_image_get_buffer_size av_malloc av_free av_freep av_strdup sws_getContext sws_scale sws_freeContext"
called=$(symbols --undefined-only "$library" | grep -E '^(av|sw|pp_|postproc)')
[ -n "$called" ] || { echo "no FFmpeg function is called" && failed=1; }
for function in $called; do
    echo "$allowed" | grep -qw "$function" || { echo "calls $function" && failed=1; }
done
exit $failed
