// Scalers: sizes, states, refusals. What the pictures look like is the sweep's matter.
#include "support/support.h"

#include <libavutil/pixfmt.h>

namespace
{

using namespace test;

struct Scaler : testing::Test {
    void SetUp() override { EXPECT_OK(AVFilter_VideoScale_Init(&m_hScaler)); }
    void TearDown() override { EXPECT_OK(AVFilter_VideoScale_Destory(m_hScaler)); }

    bool Set(const int (&n)[6]) const
    {
        return AVFilter_VideoScale_Set(m_hScaler, n[0], n[1], n[2], n[3], n[4], n[5]);
    }
    bool Fmt(const unsigned char* pSrc, unsigned char* pOut, int* pnOutLen) const
    {
        return AVFilter_VideoScale_Fmt(m_hScaler, reinterpret_cast<const char*>(pSrc), pOut, pnOutLen);
    }

    unsigned long long m_hScaler = 0;
};

TEST_F(Scaler, LooksAtTheRoomBeforeItWrites)
{
    constexpr int kSize = 24 + 2 * 16;
    // 4:2:2 tells width from height on both sides.
    EXPECT_OK(Set({AV_PIX_FMT_YUV422P, 6, 3, AV_PIX_FMT_YUV422P, 3, 8}));
    GuardedBuffer in(18 + 2 * 9, 0x40);
    GuardedBuffer out(kSize);
    in.Protect();
    int nLen = 0;
    for (const int nTooSmall : {kSize - 1, 0, -1, -2000000000}) {
        for (unsigned char* pOut : {out.Data(), static_cast<unsigned char*>(nullptr)}) {
            nLen = nTooSmall;
            ExpectFailure(Fmt(in.Data(), pOut, &nLen), AVFILTER_ERROR_VIDEO_BUFFER_TOO_SMALL);
            EXPECT_EQ(nLen, kSize);
        }
    }
    ExpectFailure(Fmt(in.Data(), nullptr, &nLen), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    ExpectFailure(Fmt(nullptr, out.Data(), &nLen), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    ExpectFailure(Fmt(in.Data(), out.Data(), nullptr), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    EXPECT_TRUE(nLen == kSize && out.Copy() == Bytes(kSize, 0xCD));
    nLen = 2000000000;
    EXPECT_OK(Fmt(in.Data(), out.Data(), &nLen));
    EXPECT_TRUE(nLen == kSize && out.Copy() != Bytes(kSize, 0xCD));
}

TEST_F(Scaler, WorksFromTheFirstSuccessfulSetOn)
{
    const Bytes source = Noise(768);
    Bytes out(768);
    const int refused[][6] = {{0, 0, 4, 0, 64, 4},     {0, 64, 4, 0, 64, -1},
                              {-1, 64, 4, 0, 64, 4},   {0, 64, 4, -1, 64, 4},
                              {0, 64, 4, 9999, 64, 4}, {0, 64, 4, AV_PIX_FMT_PAL8, 64, 4}};
    for (const auto& set : refused) {
        int nLen = 768;
        ExpectFailure(Set(set), AVFILTER_ERROR_VIDEO_PARSE_GRAPH);
        ExpectFailure(Fmt(source.data(), out.data(), &nLen), AVFILTER_ERROR_VIDEO_SCALE);
        EXPECT_EQ(nLen, 768);
        EXPECT_OK(Set({AV_PIX_FMT_RGB24, 64, 4, AV_PIX_FMT_GRAY8, 33, 4}));
        EXPECT_OK(Fmt(source.data(), out.data(), &nLen));
        EXPECT_EQ(nLen, 33 * 4);
    }
    // FFmpeg's scaler accepts Bayer pictures of a single row and then fails on them, or aborts the process.
    if (Set({AV_PIX_FMT_BAYER_RGGB8, 16, 1, AV_PIX_FMT_RGB24, 16, 1})) {
        int nLen = 768;
        ExpectFailure(Fmt(source.data(), out.data(), &nLen), AVFILTER_ERROR_VIDEO_SCALE);
    }
}

} // namespace
