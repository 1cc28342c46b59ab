// Scalers when an FFmpeg call fails: every call at every site, one at a time, then at random.
#include "support/fail_each.h"

extern "C" {
#include <libavutil/log.h>
#include <libavutil/pixfmt.h>
}

#include <random>

namespace
{

using test::Bytes;
using test::ExpectFailure;
using test::FailEach;
using test::kSucceeds;
using test::Site;

class ScaleFaults : public testing::Test
{
  protected:
    void SetUp() override
    {
        av_log_set_level(AV_LOG_QUIET);
        faults::Reset();
        EXPECT_OK(AVFilter_VideoScale_Init(&m_hScaler));
        EXPECT_EQ(faults::Log(), std::vector<std::string>{"BaseLib_OperatorHandle_Create"});
    }
    void TearDown() override
    {
        faults::Reset();
        EXPECT_OK(AVFilter_VideoScale_Destory(m_hScaler));
    }

    bool Set(int nDstWidth) const
    {
        return AVFilter_VideoScale_Set(m_hScaler, AV_PIX_FMT_YUV420P, 64, 16, AV_PIX_FMT_YUV420P, nDstWidth,
                                       8);
    }
    bool Fmt()
    {
        m_out.assign(8192, 0xCD);
        m_nLen = 8192;
        return AVFilter_VideoScale_Fmt(m_hScaler, reinterpret_cast<const char*>(m_source.data()),
                                       m_out.data(), &m_nLen);
    }
    void ExpectUntouched() const { EXPECT_TRUE(m_nLen == 8192 && m_out == Bytes(8192, 0xCD)); }

    const Bytes m_source = test::Noise(64 * 16 * 3 / 2);
    Bytes m_out;
    int m_nLen = 0;
    unsigned long long m_hScaler = 0;
};

TEST_F(ScaleFaults, EachCall)
{
    std::vector<Site> vec_Sites{
        {"sws_getContext", AVFILTER_ERROR_VIDEO_PARSE_GRAPH},
        // The pictures: what is missing is reported by the conversion.
        {"av_image_get_buffer_size", kSucceeds},
        {"av_malloc", kSucceeds},
        {"av_image_fill_arrays", kSucceeds},
        {"av_image_alloc", kSucceeds},
        {"av_image_get_buffer_size", kSucceeds},
    };
    for (const int nDstWidth : {64, 50}) {
        if (nDstWidth == 50) {
            vec_Sites.push_back({"av_image_alloc", kSucceeds}); // the picture with padded rows
        }
        FailEach(
            vec_Sites, nullptr, [&] { return Set(nDstWidth); },
            [&](unsigned long long nCode, bool bDone, const std::string& szFailed) {
                EXPECT_EQ(bDone, nCode == kSucceeds);
                if (!szFailed.empty()) {
                    ExpectFailure(Fmt(), AVFILTER_ERROR_VIDEO_SCALE);
                    ExpectUntouched();
                    EXPECT_OK(Set(nDstWidth));
                }
                EXPECT_OK(Fmt());
                EXPECT_EQ(m_nLen, nDstWidth * 8 * 3 / 2);
            });
        FailEach(
            {{"sws_scale", AVFILTER_ERROR_VIDEO_SCALE}}, nullptr, [&] { return Fmt(); },
            [&](unsigned long long nCode, bool, const std::string&) {
                if (nCode != kSucceeds) {
                    ExpectUntouched();
                }
                EXPECT_OK(Fmt());
            });
    }
}

TEST_F(ScaleFaults, AtRandom)
{
    std::mt19937 random(static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed()));
    faults::FailAtRandom(0.05, 5);
    int nWidth = 0;
    int nFailed = 0;
    for (int i = 0; i < 20000; ++i) {
        if (random() % 4 == 0) {
            const int nNext = 1 + static_cast<int>(random() % 128);
            const bool bSet = Set(nNext);
            EXPECT_TRUE(bSet || AVFilter_IsErrorOccur);
            nWidth = bSet ? nNext : 0;
        } else if (Fmt()) {
            EXPECT_EQ(m_nLen, nWidth * 8 + 2 * ((nWidth + 1) / 2) * 4);
        } else {
            ++nFailed;
            EXPECT_EQ(AVFilter_GetLastError(nullptr), AVFILTER_ERROR_VIDEO_SCALE);
            ExpectUntouched();
        }
    }
    EXPECT_GT(nFailed, 1000);
}

} // namespace
