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
using test::Picture;
using test::VideoGraph;
using test::VideoInfo;

TEST(Video, IdentityGivesItsInput)
{
    const struct {
        int nWidth, nHeight;
    } cases[] = {{640, 360}, {641, 361}, {2, 2}, {17, 9}, {5, 2}, {1, 1}};
    for (const char* szDescr : {"[in]null[out]", "[in]hflip,hflip[out]", "[in]vflip,vflip[out]"}) {
        for (const auto& st : cases) {
            for (const bool bWhole : {false, true}) {
                if (bWhole && (st.nWidth % 2 != 0 || st.nHeight % 2 != 0)) {
                    continue;
                }
                const VideoGraph filter(szDescr, VideoInfo(st.nWidth, st.nHeight));
                const VideoGraph mix(szDescr, {{test::VideoInput("in", 0, st.nWidth, st.nHeight)}});
                for (const unsigned nSeed : {1U, 2U, 3U}) {
                    const Picture picture(st.nWidth, st.nHeight, nSeed);
                    EXPECT_EQ(filter.Run(picture, bWhole), picture.Packed()) << szDescr << st.nWidth;
                    EXPECT_EQ(mix.Run(picture, bWhole, true), picture.Packed()) << szDescr << st.nWidth;
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
            const VideoGraph filter(st.szDescr, VideoInfo(64, 32));
            EXPECT_EQ(filter.Run(Picture(64, 32), bWhole).size(), st.nOut) << st.szDescr;
        }
        const VideoGraph mix(st.szDescr, {{test::VideoInput("in", 0, 64, 32)}});
        EXPECT_EQ(mix.Run(Picture(64, 32), false, true).size(), st.nOut) << st.szDescr;
    }
    // Line sizes below zero.
    const VideoGraph flip("[in]vflip[out]", VideoInfo(4, 4));
    Picture picture(4, 4);
    Bytes expected;
    for (const int nStart : {12, 8, 4, 0, 18, 16, 22, 20}) {
        const auto row = picture.bytes.begin() + nStart;
        expected.insert(expected.end(), row, row + (nStart < 16 ? 4 : 2));
    }
    EXPECT_EQ(flip.Run(picture, false), expected);
}

// Deliberate: separate planes go where the last whole picture was.
TEST(VideoFilter, PlanesAfterAWholePictureLandInItsBlock)
{
    const VideoGraph filter("[in]null[out]", VideoInfo(16, 4));
    Picture first(16, 4, 1);
    const Picture second(16, 4, 2);
    Bytes out(96);
    int nLen = 0;
    EXPECT_OK(
        AVFilter_Video_Cvt(filter.Get(), first.Plane(0), nullptr, nullptr, 0, 0, 0, out.data(), &nLen));
    EXPECT_EQ(out, Picture(16, 4, 1).bytes);
    EXPECT_EQ(filter.Run(second, false), second.bytes);
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
        const VideoGraph filter("[in]format=yuv420p[out]", VideoInfo(16, 4, 25, st.nFormat));
        Bytes out(96);
        int nLen = -5;
        const bool bDone =
            AVFilter_Video_Cvt(filter.Get(), pixels.data(), pixels.data() + 64, pixels.data() + 80,
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
    const VideoGraph filter("[in]null[out]", VideoInfo(16, 4));
    Bytes out = filter.Run(Picture(16, 4, 2), false);
    std::copy_n(pixels.begin(), 16, out.begin());
    Bytes result(96);
    int nLen = 0;
    unsigned char* const p = pixels.data();
    EXPECT_OK(AVFilter_Video_Cvt(filter.Get(), p, p, p, 16, 0, 0, result.data(), &nLen));
    EXPECT_EQ(result, out);
}

// Pictures carry no time of their own: "fps" drops them all unless the description gives them one.
TEST(VideoFilter, PicturesHeldBackComeOutLater)
{
    const VideoGraph untimed("[in]fps=25[out]", VideoInfo(16, 4));
    const VideoGraph timed("[in]setpts=N,fps=25[out]", VideoInfo(16, 4));
    const VideoGraph looping("[in]setpts=N,loop=loop=2:size=1[out]",
                             VideoInfo(16, 4)); // its surplus queues up
    const unsigned nLooped[] = {0, 0, 0, 1, 2, 3};
    for (unsigned n = 0; n < 6; ++n) {
        EXPECT_TRUE(untimed.Run(Picture(16, 4, n), true).empty());
        EXPECT_EQ(timed.Run(Picture(16, 4, n), true), n == 0 ? Bytes() : Picture(16, 4, n - 1).bytes) << n;
        EXPECT_EQ(looping.Run(Picture(16, 4, n), false), Picture(16, 4, nLooped[n]).bytes) << n;
    }
}

TEST(Video, RefusedDescriptionsAndStreams)
{
    const auto info = [](int nWidth, int nHeight, int nTimeBase = 25, int nFormat = test::kYuv420p,
                         const char* szName = "in") {
        return VideoInfo(nWidth, nHeight, nTimeBase, nFormat, szName);
    };
    const AVFILTER_VIDEO_INFO st_Good = info(16, 16);
    const AVFILTER_VIDEO_INFO st_B = info(16, 16, 25, test::kYuv420p, "b");
    constexpr test::Handle kCreate = 3;
    constexpr test::Handle kParse = 5;
    constexpr test::Handle kConfig = 6;
    test::ExpectRefused<test::Video>({{"[in]nosuchfilter[out]", {st_Good}, kParse},
                                      {"[in]hflip=nosuchoption=1[out]", {st_Good}, kParse},
                                      {"[in]hflip[out", {st_Good}, kParse},
                                      {"[in]aresample[out]", {st_Good}, kParse},
                                      {"[in]crop=100:100[out]", {st_Good}, kConfig},
                                      {"[in]null[other]", {st_Good}, test::kUnlinked},
                                      {"[in]null[out]", {info(0, 16)}, kCreate},
                                      {"[in]null[out]", {info(16, -1)}, kCreate},
                                      {"[in]null[out]", {info(16, 16, 0)}, kCreate},
                                      {"[in]null[out]", {info(16, 16, 25, -1)}, kCreate},
                                      {"[in]null[out]", {info(16, 16, 25, 9999)}, kCreate},
                                      {"[b]null[out]", {st_B}, test::kUnlinked, nullptr},
                                      {"[b]null[out]", {st_B}, test::kUnlinked, "other"},
                                      {"[b]null[out]", {st_B, st_Good}, test::kUnlinked},
                                      {"[b][c]hstack[out]", {st_B}, test::kUnlinked},
                                      {"[b][in]hstack[out]", {st_B, info(16, 8)}, kConfig},
                                      {"[b][in]hstack[out]", {st_B, info(0, 8)}, kCreate}});
}

} // namespace
