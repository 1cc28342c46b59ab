// FFmpeg's headers, and the one place for differences between its versions (5.1 to 9). Everything called
// here has had the same form since 5.1. The build differs in one point: libpostproc is linked only where
// FFmpeg still ships it (up to 7).
#pragma once

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/avutil.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
#include <libavutil/samplefmt.h>
#include <libswscale/swscale.h>
}

#include <memory>

namespace common
{

// The width for which a padded destination's rows are laid out. FFmpeg 7's converter from planar YUV to gbrp
// rounds the width up to 8 and wants three bytes of a row for each pixel of that, as if it were packed; it
// leaves the last columns out where a row is shorter. Other versions do not mind.
inline int PaddedWidth(AVPixelFormat format, int nWidth)
{
    return format == AV_PIX_FMT_GBRP ? 3 * ((nWidth + 7) / 8 * 8) : nWidth;
}

// Whether FFmpeg means to copy the colour planes between two planar RGB formats, one with alpha, and copies
// half of each row: as many bytes as there are pixels, of two bytes each. Seen in 9; up to 7 they are converted.
inline bool CopiesHalfRows([[maybe_unused]] AVPixelFormat one, [[maybe_unused]] AVPixelFormat other)
{
#if LIBSWSCALE_VERSION_MAJOR >= 9
    constexpr AVPixelFormat kPairs[][2] = {{AV_PIX_FMT_GBRP10, AV_PIX_FMT_GBRAP10},
                                           {AV_PIX_FMT_GBRP12, AV_PIX_FMT_GBRAP12},
                                           {AV_PIX_FMT_GBRP14, AV_PIX_FMT_GBRAP14},
                                           {AV_PIX_FMT_GBRP16, AV_PIX_FMT_GBRAP16}};
    for (const auto& pair : kPairs) {
        if ((one == pair[0] && other == pair[1]) || (one == pair[1] && other == pair[0])) {
            return true;
        }
    }
#endif
    return false;
}

// Whether the graph has taken the frame: a reference-counted one is empty then. A frame that nobody behind the
// source wants any longer is dropped: FFmpeg 9 leaves that to its caller, earlier versions never answer so.
inline bool SendFrame(AVFilterContext* pSt_Source, AVFrame* pSt_Frame)
{
    const int nResult = av_buffersrc_add_frame(pSt_Source, pSt_Frame);
    if (nResult == AVERROR_EOF && pSt_Frame->buf[0] != nullptr) {
        av_frame_unref(pSt_Frame);
    }
    return nResult >= 0 || nResult == AVERROR_EOF;
}

struct FreeFrame {
    void operator()(AVFrame* pSt_Frame) const { av_frame_free(&pSt_Frame); }
};
using UniqueFrame = std::unique_ptr<AVFrame, FreeFrame>;

} // namespace common
