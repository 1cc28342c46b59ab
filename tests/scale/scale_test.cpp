// Scalers: sizes, states, refusals. What the pictures look like is the sweep's matter.
#include "support/support.h"

#include <libavutil/pixfmt.h>

namespace
{

using namespace test;

TEST(Scaler, WorksFromTheFirstSuccessfulSetOnAndLooksAtTheRoomBeforeItWrites)
{
    constexpr int kSize = 24 + 2 * 16;
    unsigned long long h = 0;
    EXPECT_OK(AVFilter_VideoScale_Init(&h));
    const auto fmt = [&h](unsigned char* pIn, unsigned char* pOut, int* pnLen) {
        return AVFilter_VideoScale_Fmt(h, reinterpret_cast<const char*>(pIn), pOut, pnLen);
    };
    const struct {
        int nSrc, nWidth, nDst, nHeight;
    } refused[] = {{4, 0, 4, 8},  {4, 6, 4, -1},   {-1, 6, 4, 8},
                   {4, 6, -1, 8}, {4, 6, 9999, 8}, {4, 6, AV_PIX_FMT_PAL8, 8}};
    for (const auto& st : refused) {
        GuardedBuffer in(18 + 2 * 9, 0x40), out(kSize);
        in.Protect();
        int nLen = kSize;
        ExpectFailure(AVFilter_VideoScale_Set(h, st.nSrc, st.nWidth, 3, st.nDst, 3, st.nHeight),
                      AVFILTER_ERROR_VIDEO_PARSE_GRAPH);
        ExpectFailure(fmt(in.Data(), out.Data(), &nLen), AVFILTER_ERROR_VIDEO_SCALE);
        // 4:2:2 tells width from height on both sides.
        EXPECT_OK(AVFilter_VideoScale_Set(h, AV_PIX_FMT_YUV422P, 6, 3, AV_PIX_FMT_YUV422P, 3, 8));
        for (const int nTooSmall : {kSize - 1, 0, -1, -2000000000}) {
            for (unsigned char* pOut : {out.Data(), static_cast<unsigned char*>(nullptr)}) {
                EXPECT_EQ(nLen, kSize);
                nLen = nTooSmall;
                ExpectFailure(fmt(in.Data(), pOut, &nLen), AVFILTER_ERROR_VIDEO_BUFFER_TOO_SMALL);
            }
        }
        ExpectFailure(fmt(in.Data(), nullptr, &nLen), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        ExpectFailure(fmt(nullptr, out.Data(), &nLen), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        ExpectFailure(fmt(in.Data(), out.Data(), nullptr), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        EXPECT_TRUE(nLen == kSize && out.Copy() == Bytes(kSize, 0xCD));
        nLen = 2000000000;
        EXPECT_OK(fmt(in.Data(), out.Data(), &nLen));
        EXPECT_TRUE(nLen == kSize && out.Copy() != Bytes(kSize, 0xCD));
    }
    // FFmpeg's scaler accepts Bayer pictures of a single row and then fails on them, or aborts the process.
    if (AVFilter_VideoScale_Set(h, AV_PIX_FMT_BAYER_RGGB8, 16, 1, AV_PIX_FMT_RGB24, 16, 1)) {
        GuardedBuffer in(16), out(48);
        int nLen = 48;
        ExpectFailure(fmt(in.Data(), out.Data(), &nLen), AVFILTER_ERROR_VIDEO_SCALE);
    }
    EXPECT_OK(AVFilter_VideoScale_Destory(h));
}

} // namespace
