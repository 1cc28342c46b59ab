// Video filters on FFmpeg's own filters, and what mixes of one input have in common with them.
#include "graph.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <algorithm>

namespace
{

using test::Bytes;
using test::ExpectFailure;
using test::Filter;
using test::Mix;
using test::Picture;
using test::VideoInfo;

TEST(Video, IdentityGivesItsInput)
{
    const struct {
        int nWidth, nHeight;
        std::size_t nOut;
    } cases[] = {{640, 360, 345600}, {641, 361, 346601}, {2, 2, 6},
                 {17, 9, 153 + 64},  {5, 2, 14},         {1, 1, 1}};
    for (const char* szDescr : {"[in]null[out]", "[in]hflip,hflip[out]", "[in]vflip,vflip[out]"}) {
        for (const auto& st : cases) {
            for (const bool bWhole : {false, true}) {
                if (bWhole && (st.nWidth % 2 != 0 || st.nHeight % 2 != 0)) {
                    continue;
                }
                const Filter filter(szDescr, VideoInfo(st.nWidth, st.nHeight));
                const Mix mix(szDescr, {test::VideoInput("in", 0, st.nWidth, st.nHeight)});
                for (const unsigned nSeed : {1U, 2U, 3U}) {
                    const Picture picture(st.nWidth, st.nHeight, nSeed);
                    EXPECT_EQ(filter.Run(picture, bWhole, st.nOut), picture.Packed())
                        << szDescr << st.nWidth;
                    EXPECT_EQ(mix.Run(picture, bWhole, st.nOut), picture.Packed()) << szDescr << st.nWidth;
                }
            }
        }
    }
}

// Filters that work in place get a copy: the input of these can only be read.
TEST(Video, SizesFormatsAndFilters)
{
    const struct {
        const char* szDescr;
        std::size_t nOut; // 0: without the planes of 4:2:0, refused
    } cases[] = {{"[in]scale=100:50[out]", 7500},
                 {"[in]crop=7:5:2:2:exact=1[out]", 47},
                 {"[in]vflip,negate[out]", 3072},
                 {"[in]format=yuv444p16,format=yuv420p[out]", 3072},
                 {"[in]drawbox=0:0:8:4:t=fill[out]", 3072},
                 {"[in]format=rgb24[out]", 0},
                 {"[in]format=gray[out]", 0},
                 {"[in]format=nv12[out]", 0},
                 {"[in]format=yuyv422[out]", 0}};
    for (const auto& st : cases) {
        for (const bool bWhole : {false, true}) {
            const Filter filter(st.szDescr, VideoInfo(64, 32));
            EXPECT_EQ(filter.Run(Picture(64, 32), bWhole, st.nOut).has_value(), st.nOut != 0) << st.szDescr;
        }
        const Mix mix(st.szDescr, {test::VideoInput("in", 0, 64, 32)});
        EXPECT_EQ(mix.Run(Picture(64, 32), false, st.nOut).has_value(), st.nOut != 0) << st.szDescr;
    }
    // Line sizes below zero.
    const Filter flip("[in]vflip[out]", VideoInfo(4, 4));
    Picture picture(4, 4);
    Bytes expected;
    for (const int nStart : {12, 8, 4, 0, 18, 16, 22, 20}) {
        const auto row = picture.bytes.begin() + nStart;
        expected.insert(expected.end(), row, row + (nStart < 16 ? 4 : 2));
    }
    EXPECT_EQ(flip.Run(picture, false, 24), expected);
}

// Deliberate: separate planes go where the last whole picture was.
TEST(VideoFilter, PlanesAfterAWholePictureLandInItsBlock)
{
    const Filter filter("[in]null[out]", VideoInfo(16, 4));
    Picture first(16, 4, 1);
    const Picture second(16, 4, 2);
    Bytes out(96);
    int nLen = 0;
    EXPECT_OK(
        AVFilter_Video_Cvt(filter.hGraph, first.Plane(0), nullptr, nullptr, 0, 0, 0, out.data(), &nLen));
    EXPECT_EQ(out, Picture(16, 4, 1).bytes);
    EXPECT_EQ(filter.Run(second, false, 96), second.bytes);
    EXPECT_EQ(first.bytes, second.bytes);
}

TEST(VideoFilter, PlaneCounts)
{
    const struct {
        int nFormat, nCount[3];
        bool bTaken;
    } cases[] = {
        {AV_PIX_FMT_YUV420P, {64, 16, 16}, true},  {AV_PIX_FMT_YUV420P, {-1, 16, 16}, false},
        {AV_PIX_FMT_YUV420P, {64, 33, 16}, false}, {AV_PIX_FMT_YUV420P, {64, 16, 17}, false},
        {AV_PIX_FMT_YUV420P, {97, 0, 0}, false},   {AV_PIX_FMT_YUV420P, {64, 16, -2000000000}, false},
        {AV_PIX_FMT_NV12, {64, 32, 0}, true},      {AV_PIX_FMT_NV12, {64, 32, 1}, false},
        {AV_PIX_FMT_RGB24, {192, 0, 0}, true},     {AV_PIX_FMT_RGB24, {192, 1, 0}, false}};
    Bytes pixels = test::Noise(256);
    for (const auto& st : cases) {
        const Filter filter("[in]format=yuv420p[out]", VideoInfo(16, 4, 25, st.nFormat));
        Bytes out(96);
        int nLen = -5;
        const bool bDone =
            AVFilter_Video_Cvt(filter.hGraph, pixels.data(), pixels.data() + 64, pixels.data() + 80,
                               st.nCount[0], st.nCount[1], st.nCount[2], out.data(), &nLen);
        if (!st.bTaken) {
            ExpectFailure(bDone, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
            EXPECT_TRUE(nLen == -5 && out == Bytes(96));
            continue;
        }
        EXPECT_TRUE(bDone && nLen == 96);
        if (st.nFormat != AV_PIX_FMT_RGB24) {
            EXPECT_TRUE(std::equal(pixels.begin(), pixels.begin() + 64, out.begin()));
            EXPECT_EQ(out[65], pixels[st.nFormat == AV_PIX_FMT_NV12 ? 66 : 65]);
        }
    }
    // Smaller counts leave the rest as it was.
    const Filter filter("[in]null[out]", VideoInfo(16, 4));
    Bytes out = *filter.Run(Picture(16, 4, 2), false, 96);
    std::copy_n(pixels.begin(), 16, out.begin());
    Bytes result(96);
    int nLen = 0;
    unsigned char* const p = pixels.data();
    EXPECT_OK(AVFilter_Video_Cvt(filter.hGraph, p, p, p, 16, 0, 0, result.data(), &nLen));
    EXPECT_EQ(result, out);
}

// Pictures carry no time of their own: "fps" drops them all unless the description gives them one.
TEST(VideoFilter, PicturesHeldBackComeOutLater)
{
    const Filter untimed("[in]fps=25[out]", VideoInfo(16, 4));
    const Filter timed("[in]setpts=N,fps=25[out]", VideoInfo(16, 4));
    const Filter looping("[in]setpts=N,loop=loop=2:size=1[out]", VideoInfo(16, 4)); // its surplus queues up
    const unsigned nLooped[] = {0, 0, 0, 1, 2, 3};
    for (unsigned n = 0; n < 6; ++n) {
        EXPECT_FALSE(untimed.Run(Picture(16, 4, n), true, 96));
        const std::optional<Bytes> out = timed.Run(Picture(16, 4, n), true, 96);
        EXPECT_TRUE(n == 0 ? !out : out == Picture(16, 4, n - 1).bytes) << n;
        EXPECT_EQ(looping.Run(Picture(16, 4, n), false, 96), Picture(16, 4, nLooped[n]).bytes) << n;
    }
}

TEST(VideoFilter, RefusedDescriptionsAndStreams)
{
    constexpr auto kCreate = AVFILTER_ERROR_VIDEO_CREATE_SOURCE;
    constexpr auto kParse = AVFILTER_ERROR_VIDEO_PARSE_GRAPH;
    constexpr auto kConfig = AVFILTER_ERROR_VIDEO_CONFIG_GRAPH;
    const struct {
        const char* szDescr;
        AVFILTER_VIDEO_INFO st_Info;
        unsigned long long nCode;
    } cases[] = {{"[in]nosuchfilter[out]", VideoInfo(16, 16), kParse},
                 {"[in]hflip=nosuchoption=1[out]", VideoInfo(16, 16), kParse},
                 {"[in]hflip[out", VideoInfo(16, 16), kParse},
                 {"[in]aresample[out]", VideoInfo(16, 16), kParse},
                 {"[in]crop=100:100[out]", VideoInfo(16, 16), kConfig},
                 {"[in]null[other]", VideoInfo(16, 16), test::kUnlinked},
                 {"[in]null[out]", VideoInfo(0, 16), kCreate},
                 {"[in]null[out]", VideoInfo(16, -1), kCreate},
                 {"[in]null[out]", VideoInfo(16, 16, 0), kCreate},
                 {"[in]null[out]", VideoInfo(16, 16, 25, -1), kCreate},
                 {"[in]null[out]", VideoInfo(16, 16, 25, 9999), kCreate},
                 {nullptr, VideoInfo(16, 16), AVFILTER_ERROR_VIDEO_INVALID_PARAM}};
    unsigned long long hHandle = 77;
    for (const auto& st : cases) {
        SCOPED_TRACE(st.szDescr == nullptr ? "null" : st.szDescr);
        AVFILTER_VIDEO_INFO st_Info = st.st_Info;
        ExpectFailure(AVFilter_Video_Init(&hHandle, st.szDescr, &st_Info), st.nCode);
        ExpectFailure(AVFilter_Video_Init(nullptr, st.szDescr, &st_Info),
                      AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    }
    ExpectFailure(AVFilter_Video_Init(&hHandle, "null", nullptr), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    EXPECT_EQ(hHandle, 77U);
}

TEST(Video, ArgumentsAndHandles)
{
    const Filter filter("[in]null[out]", VideoInfo(16, 4));
    const Mix mix("[a]null[out]", {test::VideoInput("a", 3, 16, 4)});
    Bytes bytes(1 << 20);
    unsigned char* const p = bytes.data();
    Bytes out(96);
    int nLen = -5;
    constexpr auto kInvalid = AVFILTER_ERROR_VIDEO_INVALID_PARAM;
    constexpr auto kNotFound = AVFILTER_ERROR_VIDEO_NOT_FOUND;
    // The pointers are tested before the handle.
    for (const unsigned long long h : {filter.hGraph, mix.hGraph, 0ULL}) {
        ExpectFailure(AVFilter_Video_Cvt(h, nullptr, p, p, 1, 1, 1, out.data(), &nLen), kInvalid);
        ExpectFailure(AVFilter_Video_Cvt(h, p, nullptr, nullptr, 1, 1, 1, nullptr, &nLen), kInvalid);
        ExpectFailure(AVFilter_Video_Cvt(h, p, nullptr, nullptr, 1, 1, 1, out.data(), nullptr), kInvalid);
        ExpectFailure(AVFilter_Video_MIXSend(h, 3, nullptr, p, p, 1, 1, 1), kInvalid);
    }
    ExpectFailure(AVFilter_Video_MIXSend(mix.hGraph, 3, p, p, p, 64, -1, 16), kInvalid);
    ExpectFailure(AVFilter_Video_MIXSend(mix.hGraph, 3, p, p, p, 64, 16, 1 << 20), kInvalid);
    ExpectFailure(AVFilter_Video_MIXSend(mix.hGraph, 0, p, nullptr, nullptr, 0, 0, 0), kNotFound);
    // The two kinds do not know each other's handles.
    EXPECT_OK(AVFilter_Video_Destroy(mix.hGraph));
    EXPECT_OK(AVFilter_Video_MIXDestroy(filter.hGraph));
    ExpectFailure(AVFilter_Video_Cvt(mix.hGraph, p, nullptr, nullptr, 0, 0, 0, out.data(), &nLen),
                  kNotFound);
    for (const unsigned long long h : {filter.hGraph, 0ULL}) {
        ExpectFailure(AVFilter_Video_MIXSend(h, 3, p, nullptr, nullptr, 0, 0, 0), kNotFound);
        ExpectFailure(AVFilter_Video_MIXRecv(h, nullptr, nullptr), kNotFound);
        ExpectFailure(AVFilter_Video_MIXRecv(h, out.data(), &nLen), kNotFound);
    }
    EXPECT_TRUE(nLen == -5 && out == Bytes(96));
    Picture picture(16, 4);
    EXPECT_EQ(filter.Run(picture, false, 96), picture.bytes);
    EXPECT_FALSE(mix.Receive(96));
    EXPECT_OK(mix.Send(3, picture));
    EXPECT_EQ(mix.Receive(96), picture.bytes);
    unsigned long long hGone = 0;
    {
        const Filter gone("[in]null[out]", VideoInfo(16, 4));
        hGone = gone.hGraph;
    }
    ExpectFailure(AVFilter_Video_Cvt(hGone, p, nullptr, nullptr, 0, 0, 0, out.data(), &nLen), kNotFound);
    EXPECT_OK(AVFilter_Video_Destroy(hGone));
    EXPECT_OK(AVFilter_Video_MIXDestroy(0));
}

TEST(VideoFilter, CyclesKeepNoMemory)
{
    AVFILTER_VIDEO_INFO st_Info = VideoInfo(64, 32);
    Picture picture(64, 32);
    Bytes out(picture.bytes.size());
    test::ExpectFlatMemory([&] {
        unsigned long long h = 0;
        int nLen = 0;
        ASSERT_TRUE(AVFilter_Video_Init(&h, "[in]hflip[out]", &st_Info));
        for (unsigned char* pU :
             {picture.Plane(1), picture.Plane(1), static_cast<unsigned char*>(nullptr)}) {
            ASSERT_TRUE(AVFilter_Video_Cvt(h, picture.Plane(0), pU, picture.Plane(2), picture.nLuma,
                                           picture.nChroma, picture.nChroma, out.data(), &nLen));
        }
        ASSERT_TRUE(AVFilter_Video_Destroy(h));
        ASSERT_FALSE(AVFilter_Video_Init(&h, "[in]hflip[other]", &st_Info));
    });
}

} // namespace
