// Video filters and mixes when an FFmpeg call fails: every call at every site, one at a time, then at random.
// That nothing is kept is seen by the leak check of the sanitizer build.
#include "support/fail_each.h"

extern "C" {
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <climits>
#include <random>
#include <utility>

namespace
{

using test::Bytes;
using test::ExpectFailure;
using test::FailEach;
using test::kSucceeds;
using test::kUnlinked;
using test::Picture;
using test::Site;

class VideoFaults : public testing::Test
{
  protected:
    void SetUp() override { av_log_set_level(AV_LOG_QUIET); }
    void TearDown() override { faults::Reset(); }

    bool InitFilter(unsigned long long* ph)
    {
        return AVFilter_Video_Init(ph, "[in]null[out]", m_infos.Pointers()[0]);
    }
    bool InitMix(unsigned long long* ph, int nInputs, const char* szDescr)
    {
        return AVFilter_Video_MIXInit(ph, m_infos.Get(), nInputs, "out", szDescr);
    }
    // Working calls with a new picture.
    bool Cvt(unsigned long long hFilter, bool bWhole)
    {
        Next();
        return AVFilter_Video_Cvt(hFilter, m_picture.Plane(0), bWhole ? nullptr : m_picture.Plane(1),
                                  m_picture.Plane(2), m_picture.nLuma, m_picture.nChroma, m_picture.nChroma,
                                  m_out.data(), &m_nLen);
    }
    bool Send(unsigned long long hMix, int nInputId, bool bWhole)
    {
        Next();
        return AVFilter_Video_MIXSend(hMix, nInputId, m_picture.Plane(0),
                                      bWhole ? nullptr : m_picture.Plane(1), m_picture.Plane(2),
                                      m_picture.nLuma, m_picture.nChroma, m_picture.nChroma);
    }
    bool Receive(unsigned long long hMix) { return AVFilter_Video_MIXRecv(hMix, m_out.data(), &m_nLen); }
    void Next()
    {
        // In place: a mix may still refer to a whole picture that was sent.
        const Bytes noise = test::Noise(m_picture.bytes.size(), ++m_nPicture);
        std::copy(noise.begin(), noise.end(), m_picture.bytes.begin());
        m_out.assign(1024, 0xCD);
        m_nLen = -5;
    }
    void ExpectUntouched() const { EXPECT_TRUE(m_nLen == -5 && m_out == Bytes(1024, 0xCD)); }
    void ExpectPicture(const Picture& picture) const
    {
        EXPECT_TRUE(m_nLen == 384 && std::equal(picture.bytes.begin(), picture.bytes.end(), m_out.begin()));
    }

    test::VideoInfos m_infos{{test::VideoInfo(32, 8, 25, test::kYuv420p, "a", 0),
                              test::VideoInfo(32, 8, 25, test::kYuv420p, "b", 1)}};
    unsigned m_nPicture = 0;
    Picture m_picture{32, 8};
    Bytes m_out;
    int m_nLen = 0;
};

TEST_F(VideoFaults, Init)
{
    const std::vector<Site> vec_Sites{
        {"avfilter_inout_alloc", AVFILTER_ERROR_VIDEO_ALLOC},
        {"avfilter_inout_alloc", AVFILTER_ERROR_VIDEO_ALLOC},
        {"avfilter_graph_alloc", AVFILTER_ERROR_VIDEO_ALLOC},
        {"avfilter_get_by_name", AVFILTER_ERROR_VIDEO_CREATE_SOURCE},
        {"avfilter_graph_create_filter", AVFILTER_ERROR_VIDEO_CREATE_SOURCE},
        {"avfilter_get_by_name", AVFILTER_ERROR_VIDEO_CREATE_SINK},
        {"avfilter_graph_create_filter", AVFILTER_ERROR_VIDEO_CREATE_SINK},
        {"av_strdup", kUnlinked},
        {"av_strdup", kUnlinked},
        {"avfilter_graph_parse_ptr", AVFILTER_ERROR_VIDEO_PARSE_GRAPH},
        {"avfilter_graph_config", AVFILTER_ERROR_VIDEO_CONFIG_GRAPH},
        {"av_frame_alloc", AVFILTER_ERROR_VIDEO_ALLOC},
        {"av_image_get_buffer_size", kSucceeds},
        {"av_malloc", kSucceeds},
        {"av_image_fill_arrays", kSucceeds},
        {"av_frame_alloc", AVFILTER_ERROR_VIDEO_ALLOC},
        {"av_image_get_buffer_size", kSucceeds},
        {"av_malloc", kSucceeds},
        {"av_image_fill_arrays", kSucceeds},
    };
    unsigned long long h = 77;
    FailEach(
        vec_Sites, "BaseLib_OperatorHandle_Create", [&] { return InitFilter(&h); },
        [&](unsigned long long nCode, bool bDone, const std::string& szFailed) {
            if (nCode != kSucceeds) {
                EXPECT_EQ(h, 77U);
                return;
            }
            EXPECT_TRUE(bDone && !AVFilter_IsErrorOccur);
            // Without an input picture separate planes have nowhere to go; whole ones need its rows'
            // sizes alone.
            const bool bNoSizes = szFailed == "av_image_fill_arrays 1";
            const bool bNoPicture =
                bNoSizes || szFailed == "av_image_get_buffer_size 1" || szFailed == "av_malloc 1";
            for (const bool bWhole : {false, true}) {
                if (bWhole ? bNoSizes : bNoPicture) {
                    ExpectFailure(Cvt(h, bWhole),
                                  bWhole ? AVFILTER_ERROR_VIDEO_SEND_FRAME : AVFILTER_ERROR_VIDEO_ALLOC);
                    ExpectUntouched();
                } else {
                    EXPECT_OK(Cvt(h, bWhole));
                    ExpectPicture(m_picture);
                }
            }
            EXPECT_OK(AVFilter_Video_Destroy(h));
            h = 77;
        });
}

TEST_F(VideoFaults, Cvt)
{
    const std::vector<Site> vec_Sites{{"av_buffersrc_add_frame", AVFILTER_ERROR_VIDEO_SEND_FRAME},
                                      {"av_buffersink_get_frame", AVFILTER_ERROR_VIDEO_RECEIVE_FRAME}};
    for (const bool bWhole : {true, false}) {
        unsigned long long h = 0;
        EXPECT_OK(InitFilter(&h));
        FailEach(
            vec_Sites, nullptr, [&] { return Cvt(h, bWhole); },
            [&](unsigned long long nCode, bool, const std::string&) {
                nCode == kSucceeds ? ExpectPicture(m_picture) : ExpectUntouched();
            });
        // A picture that was sent but not received stays in the graph and comes first.
        const Picture queued = m_picture;
        EXPECT_OK(Cvt(h, bWhole));
        ExpectPicture(queued);
        EXPECT_OK(AVFilter_Video_Destroy(h));
    }
}

TEST_F(VideoFaults, MixInit)
{
    std::vector<Site> vec_Sites{{"avfilter_graph_alloc", AVFILTER_ERROR_VIDEO_INVALID_PARAM}};
    for (int nInput = 0; nInput < 2; ++nInput) {
        vec_Sites.insert(vec_Sites.end(),
                         {{"avfilter_get_by_name", AVFILTER_ERROR_VIDEO_CREATE_SOURCE},
                          {"avfilter_graph_create_filter", AVFILTER_ERROR_VIDEO_CREATE_SOURCE},
                          {"avfilter_inout_alloc", AVFILTER_ERROR_VIDEO_ALLOC},
                          {"av_strdup", kUnlinked}});
    }
    vec_Sites.insert(vec_Sites.end(), {{"avfilter_get_by_name", AVFILTER_ERROR_VIDEO_CREATE_SINK},
                                       {"avfilter_graph_create_filter", AVFILTER_ERROR_VIDEO_CREATE_SINK},
                                       {"avfilter_inout_alloc", AVFILTER_ERROR_VIDEO_ALLOC},
                                       {"av_strdup", kUnlinked},
                                       {"avfilter_graph_parse_ptr", AVFILTER_ERROR_VIDEO_PARSE_GRAPH},
                                       {"avfilter_graph_config", AVFILTER_ERROR_VIDEO_CONFIG_GRAPH}});
    unsigned long long h = 77;
    FailEach(
        vec_Sites, "BaseLib_OperatorHandle_Create", [&] { return InitMix(&h, 2, "[a][b]hstack[out]"); },
        [&](unsigned long long nCode, bool, const std::string&) {
            if (nCode != kSucceeds) {
                EXPECT_EQ(h, 77U);
                EXPECT_OK(InitMix(&h, 2, "[a][b]hstack[out]"));
            }
            EXPECT_TRUE(Send(h, 0, true) && Send(h, 1, false) && Receive(h));
            EXPECT_OK(AVFilter_Video_MIXDestroy(h));
            h = 77;
        });
}

// The filter writes each picture's time over its luma: only pictures that were accepted use one up.
TEST_F(VideoFaults, MixSend)
{
    for (const bool bWhole : {false, true}) {
        unsigned long long h = 0;
        EXPECT_OK(InitMix(&h, 1, "[a]geq=lum=T*250+0.25:cb=128:cr=128[out]"));
        int nTime = 0;
        const auto expectOne = [&] {
            EXPECT_OK(Receive(h));
            EXPECT_EQ(m_out[0], 10 * nTime++);
            ExpectFailure(Receive(h), AVFILTER_ERROR_VIDEO_RECEIVE_FRAME);
        };
        // The frame that FFmpeg found no buffer for has lost its size too: the source refuses it.
        const unsigned long long nNoBuffer =
            bWhole ? AVFILTER_ERROR_VIDEO_SEND_FRAME : AVFILTER_ERROR_VIDEO_ALLOC;
        FailEach(
            {{"av_frame_alloc", AVFILTER_ERROR_VIDEO_ALLOC},
             {"av_frame_get_buffer", nNoBuffer},
             {"av_buffersrc_add_frame", AVFILTER_ERROR_VIDEO_SEND_FRAME}},
            nullptr, [&] { return Send(h, 0, bWhole); },
            [&](unsigned long long nCode, bool, const std::string&) {
                EXPECT_TRUE(nCode == kSucceeds || Send(h, 0, bWhole));
                expectOne();
            });
        av_max_alloc(1024); // enough for a frame, not for a picture
        ExpectFailure(Send(h, 0, bWhole), nNoBuffer);
        av_max_alloc(INT_MAX);
        EXPECT_OK(Send(h, 0, bWhole));
        expectOne();
        EXPECT_OK(AVFilter_Video_MIXDestroy(h));
    }
}

TEST_F(VideoFaults, MixRecv)
{
    unsigned long long h = 0;
    EXPECT_OK(InitMix(&h, 1, "[a]null[out]"));
    EXPECT_OK(Send(h, 0, false));
    FailEach(
        {{"av_frame_alloc", AVFILTER_ERROR_VIDEO_ALLOC},
         {"av_buffersink_get_frame", AVFILTER_ERROR_VIDEO_RECEIVE_FRAME}},
        nullptr, [&] { return Receive(h); },
        [&](unsigned long long nCode, bool, const std::string&) {
            if (nCode != kSucceeds) {
                ExpectUntouched();
                EXPECT_OK(Receive(h));
            }
            ExpectPicture(m_picture);
            EXPECT_OK(Send(h, 0, false));
        });
    EXPECT_OK(AVFilter_Video_MIXDestroy(h));
}

// Calls of all kinds on several handles while everything fails now and then.
TEST_F(VideoFaults, AtRandom)
{
    std::mt19937 random(static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed()));
    unsigned long long hFilters[4] = {};
    unsigned long long hMixes[4] = {};
    faults::Reset();
    faults::FailAtRandom(0.02, 11);
    int nFailed = 0;
    for (int i = 0; i < 20000; ++i) {
        unsigned long long& hFilter = hFilters[random() % 4];
        unsigned long long& hMix = hMixes[random() % 4];
        const unsigned long long hBefore[] = {hFilter, hMix};
        const unsigned n = static_cast<unsigned>(random());
        Next();
        bool bDone = true;
        if (n % 64 == 0) {
            EXPECT_TRUE(AVFilter_Video_Destroy(std::exchange(hFilter, 0ULL)));
            EXPECT_TRUE(AVFilter_Video_MIXDestroy(std::exchange(hMix, 0ULL)));
        } else if (n % 2 == 0) {
            bDone = hFilter == 0 ? InitFilter(&hFilter) : Cvt(hFilter, n % 4 == 0);
        } else if (hMix == 0) {
            bDone = InitMix(&hMix, 2, "[a][b]hstack[out]");
        } else {
            bDone = n % 3 == 0 ? Receive(hMix) : Send(hMix, n % 3 == 1 ? 0 : 1, n % 8 < 4);
        }
        if (!bDone) {
            ++nFailed;
            EXPECT_TRUE(AVFilter_IsErrorOccur && hFilter == hBefore[0] && hMix == hBefore[1]);
            ExpectUntouched();
        }
    }
    EXPECT_GT(nFailed, 500);
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(AVFilter_Video_Destroy(hFilters[i]) && AVFilter_Video_MIXDestroy(hMixes[i]));
    }
}

} // namespace
