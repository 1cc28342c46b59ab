// Video filters on FFmpeg's own filters, and what mixes of one input have in common with them.
#include "support/graph.h"

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
            const VideoGraph filter(szDescr, VideoInfo(st.nWidth, st.nHeight));
            const VideoGraph mix(szDescr, {{VideoInfo(st.nWidth, st.nHeight)}});
            for (const unsigned nSeed : {1U, 2U, 3U}) {
                const Picture picture(st.nWidth, st.nHeight, nSeed);
                const bool bWhole = nSeed > 1 && (st.nWidth | st.nHeight) % 2 == 0;
                EXPECT_EQ(filter.Run(picture, bWhole), picture.Packed()) << szDescr << st.nWidth;
                EXPECT_EQ(mix.Run(picture, bWhole, true), picture.Packed()) << szDescr << st.nWidth;
            }
        }
    }
    // Line sizes below zero.
    const VideoGraph flip("[in]vflip[out]", VideoInfo(8, 4));
    Picture upsideDown(8, 4);
    upsideDown.bytes = flip.Run(Picture(8, 4), false);
    EXPECT_TRUE(
        std::equal(upsideDown.bytes.begin(), upsideDown.bytes.begin() + 8, Picture(8, 4).Plane(0) + 24));
    EXPECT_EQ(flip.Run(upsideDown, true), Picture(8, 4).bytes);
}

// Filters that work in place get a copy: the input of these can only be read.
TEST(Video, SizesFormatsAndFilters)
{
    const struct {
        const char* szDescr;
        std::size_t nOut; // 0: without planes as large as those of 4:2:0, refused
    } cases[] = {{"[in]scale=100:50[out]", 7500},
                 {"[in]crop=7:5:2:2:exact=1[out]", 47},
                 {"[in]vflip,negate[out]", 3072},
                 {"[in]format=yuv444p16,format=yuv420p[out]", 3072},
                 {"[in]drawbox=0:0:8:4:t=fill[out]", 3072},
                 {"[in]format=rgb24[out]", 0},
                 {"[in]format=gray[out]", 0},
                 {"[in]format=nv12[out]", 0},
                 {"[in]format=yuv410p[out]", 0}};
    for (const auto& st : cases) {
        const VideoGraph filter(st.szDescr, VideoInfo(64, 32));
        const VideoGraph mix(st.szDescr, {{VideoInfo(64, 32)}});
        EXPECT_EQ(filter.Run(Picture(64, 32), false).size(), st.nOut) << st.szDescr;
        EXPECT_EQ(filter.Run(Picture(64, 32), true).size(), st.nOut) << st.szDescr;
        EXPECT_EQ(mix.Run(Picture(64, 32), false, true).size(), st.nOut) << st.szDescr;
    }
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
    unsigned char* const p = pixels.data();
    Bytes out(96);
    int nLen = -5;
    for (const auto& st : cases) {
        const VideoGraph filter("[in]format=yuv420p[out]", VideoInfo(16, 4, 25, st.nFormat));
        out.assign(96, 0);
        nLen = -5;
        const bool bDone = AVFilter_Video_Cvt(filter.Get(), p, p + 64, p + 80, st.nCount[0], st.nCount[1],
                                              st.nCount[2], out.data(), &nLen);
        if (!st.bTaken) {
            ExpectFailure(bDone, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        }
        EXPECT_TRUE(st.bTaken ? bDone && nLen == 96 : nLen == -5 && out == Bytes(96));
        EXPECT_TRUE(st.nFormat == AV_PIX_FMT_RGB24 || std::equal(p, p + 64, out.begin()) == st.bTaken);
    }
    // Smaller counts leave the rest as it was.
    const VideoGraph filter("[in]null[out]", VideoInfo(16, 4));
    Bytes expected = filter.Run(Picture(16, 4, 2), false);
    std::copy_n(p, 16, expected.begin());
    EXPECT_OK(AVFilter_Video_Cvt(filter.Get(), p, p, p, 16, 0, 0, out.data(), &nLen));
    EXPECT_EQ(out, expected);
    // Deliberate: separate planes go where the last whole picture was.
    Picture whole(16, 4, 1);
    EXPECT_OK(AVFilter_Video_Cvt(filter.Get(), whole.Plane(0), nullptr, p, 0, 0, 0, out.data(), &nLen));
    EXPECT_EQ(out, Picture(16, 4, 1).bytes);
    ExpectFailure(AVFilter_Video_Cvt(filter.Get(), p, p, p, 64, 16, -1, out.data(), &nLen),
                  AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    EXPECT_EQ(filter.Run(Picture(16, 4, 2), false), Picture(16, 4, 2).bytes);
    EXPECT_EQ(whole.bytes, Picture(16, 4, 2).bytes);
}

// Pictures carry no time of their own: "fps" drops them all unless the description gives them one, and then is one
// behind. The surplus of "loop" queues up.
TEST(VideoFilter, PicturesHeldBackComeOutLater)
{
    const VideoGraph untimed("[in]fps=25[out]", VideoInfo(16, 4));
    const VideoGraph timed("[in]setpts=N,fps=25[out]", VideoInfo(16, 4));
    const VideoGraph looping("[in]setpts=N,loop=loop=2:size=1[out]", VideoInfo(16, 4));
    for (const unsigned n : {0U, 1U, 2U, 3U}) {
        EXPECT_TRUE(untimed.Run(Picture(16, 4, n), true).empty());
        EXPECT_EQ(timed.Run(Picture(16, 4, n), true), n == 0 ? Bytes() : Picture(16, 4, n - 1).bytes) << n;
        EXPECT_EQ(looping.Run(Picture(16, 4, n), false), Picture(16, 4, n < 3 ? 0 : n - 2).bytes) << n;
    }
}

TEST(Video, RefusedDescriptionsAndStreams)
{
    const AVFILTER_VIDEO_INFO st_Good = VideoInfo(16, 16);
    const AVFILTER_VIDEO_INFO st_B = test::Named(st_Good, "b");
    constexpr test::Handle kCreate = 3;
    constexpr test::Handle kParse = 5;
    constexpr test::Handle kConfig = 6;
    test::ExpectRefused<AVFILTER_VIDEO_INFO>({{"[in]nosuchfilter[out]", {st_Good}, kParse},
                                              {"[in]aresample[out]", {st_Good}, kParse},
                                              {"[in]null[other]", {st_Good}, test::kUnlinked},
                                              {"[in]null[out]", {VideoInfo(0, 16)}, kCreate},
                                              {"[in]null[out]", {VideoInfo(16, 16, 0)}, kCreate},
                                              {"[in]null[out]", {VideoInfo(16, 16, 25, -1)}, kCreate},
                                              {"[in]null[out]", {VideoInfo(16, 16, 25, 9999)}, kCreate},
                                              {"[b]null[out]", {st_B}, test::kUnlinked, nullptr},
                                              {"[b]null[out]", {st_B}, test::kUnlinked, "other"},
                                              {"[b]null[out]", {st_B, st_Good}, test::kUnlinked},
                                              {"[b][in]hstack[out]", {st_B, VideoInfo(16, 8)}, kConfig},
                                              {"[b][in]hstack[out]", {st_B, VideoInfo(0, 8)}, kCreate}});
}

} // namespace
