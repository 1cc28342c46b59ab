// FFmpeg's headers, and the one place for differences between its versions (5.1 to 7.1). Everything
// called here has had the same form since 5.1. The build differs in one point: libpostproc is linked
// only where FFmpeg still ships it (up to 7).
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

namespace frame
{

// How many times as wide as the picture the rows of a padded destination must be. FFmpeg 7's converter
// from planar YUV to gbrp wants three bytes of a row for each pixel, as if it were packed, and leaves the
// last columns out where a row is shorter. Earlier versions do not mind.
inline int PaddedRowFactor(AVPixelFormat format)
{
    return format == AV_PIX_FMT_GBRP ? 3 : 1;
}

struct FreeFrame {
    void operator()(AVFrame* pSt_Frame) const { av_frame_free(&pSt_Frame); }
};
using UniqueFrame = std::unique_ptr<AVFrame, FreeFrame>;

} // namespace frame
