// Video filters and mixes, on FFmpeg's own filters.
#include "support/graph.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <algorithm>
#include <utility>

namespace
{

using namespace test;

// From memory that can only be read: filters that work in place get a copy.
TEST(Video, SizesFormatsAndFilters)
{
    constexpr std::size_t kIdentity = 1;
    const struct {
        const char* szDescr;
        int nWidth, nHeight;
        std::size_t nOut; // 0: without planes as large as those of 4:2:0, refused
    } cases[] = {
        {"[in]null[out]", 641, 361, kIdentity},     {"[in]null[out]", 640, 360, kIdentity},
        {"[in]null[out]", 5, 2, kIdentity},         {"[in]null[out]", 1, 1, kIdentity},
        {"[in]vflip,vflip[out]", 17, 9, kIdentity}, {"[in]crop=7:5:2:2:exact=1[out]", 64, 32, 47},
        {"[in]vflip,negate[out]", 64, 32, 3072},    {"[in]drawbox=0:0:8:4:t=fill[out]", 64, 32, 3072},
        {"[in]format=gray[out]", 64, 32, 0},        {"[in]format=nv12[out]", 64, 32, 0},
        {"[in]format=yuv410p[out]", 64, 32, 0}};
    for (const auto& st : cases) {
        SCOPED_TRACE(testing::Message() << st.szDescr << " " << st.nWidth);
        const VideoGraph filter(st.szDescr, VideoInfo(st.nWidth, st.nHeight));
        const VideoGraph mix(st.szDescr, {{VideoInfo(st.nWidth, st.nHeight)}});
        for (const unsigned nSeed : {1U, 2U, 3U}) {
            const Picture picture(st.nWidth, st.nHeight, nSeed);
            const bool bWhole = nSeed > 1 && (st.nWidth | st.nHeight) % 2 == 0;
            const Bytes filtered = filter.Run(picture, bWhole);
            EXPECT_TRUE(st.nOut == kIdentity ? filtered == picture.Packed() : filtered.size() == st.nOut);
            EXPECT_EQ(mix.Run(picture, bWhole && st.nOut == kIdentity, true), filtered);
        }
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
    Bytes pixels = Noise(256);
    unsigned char* const p = pixels.data();
    Bytes out(96);
    int nLen = -5;
    for (const auto& st : cases) {
        const VideoGraph filter("[in]format=yuv420p[out]", VideoInfo(16, 4, 25, st.nFormat));
        const int(&n)[3] = st.nCount;
        out.assign(96, 0);
        nLen = -5;
        const bool bDone =
            AVFilter_Video_Cvt(filter.Get(), p, p + 64, p + 80, n[0], n[1], n[2], out.data(), &nLen);
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

TEST(VideoMix, InputsAreNamedByTheirIdsAndOfEqualOnesTheFirstIsFed)
{
    const VideoGraph mix("[x][y][z]hstack=inputs=3[out]",
                         {Named(VideoInfo(16, 4), "x", 7), Named(VideoInfo(24, 4), "y", -2),
                          Named(VideoInfo(8, 4), "z", 0)});
    Bytes row;
    for (const auto& [nId, nWidth] : {std::pair(7, 16), {-2, 24}, {0, 8}}) {
        EXPECT_TRUE(mix.Recv().empty());
        Picture picture(nWidth, 4);
        row.insert(row.end(), picture.Plane(0), picture.Plane(0) + nWidth);
        EXPECT_OK(mix.Send(nId, picture));
    }
    const Bytes out = mix.Recv();
    EXPECT_TRUE(out.size() > 48 && std::equal(row.begin(), row.end(), out.begin()));

    const VideoGraph twins("[b]nullsink;[a]null[out]",
                           {Named(VideoInfo(16, 4), "a", 4), Named(VideoInfo(16, 4), "b", 4)});
    Picture picture(16, 4);
    EXPECT_OK(twins.Send(4, picture));
    EXPECT_EQ(twins.Recv(), picture.bytes);
}

// The second input's pictures last twice as long.
TEST(VideoMix, InputsArePairedByTheTimeThatEachCountsForItself)
{
    const VideoGraph mix("[a][b]overlay=8:2,format=yuv420p[out]",
                         {Named(VideoInfo(32, 8, 50), "a"), Named(VideoInfo(16, 4, 25), "b", 1)});
    for (const unsigned n : {0U, 1U, 2U, 3U, 4U, 5U}) { // they queue up
        Picture large(32, 8, n);
        Picture small(16, 4, 50 + n / 2);
        for (const int nCount : {-1, 1 << 20}) { // what is refused does not use up a time
            ExpectFailure(AVFilter_Video_MIXSend(mix.Get(), 0, large.Plane(0), large.Plane(1),
                                                 large.Plane(2), 256, 64, nCount),
                          AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        }
        EXPECT_OK(mix.Send(0, large));
        EXPECT_TRUE(n % 2 != 0 || mix.Send(1, small));
    }
    for (const unsigned n : {0U, 1U, 2U, 3U}) {
        const Bytes out = mix.Recv();
        ASSERT_EQ(out.size(), 384U);
        EXPECT_EQ(out[0], Picture(32, 8, n).bytes[0]);
        EXPECT_EQ(out[2 * 32 + 8], Picture(16, 4, 50 + n / 2).bytes[0]);
    }
}

TEST(VideoMix, APictureThatCannotBeHandedOutIsKept)
{
    const VideoGraph mix("[a]null[out]", {{Named(VideoInfo(16, 4), "a")}});
    int nLen = -5;
    Bytes out(96);
    ExpectFailure(AVFilter_Video_MIXRecv(mix.Get(), nullptr, nullptr), AVFILTER_ERROR_VIDEO_RECEIVE_FRAME);
    for (const unsigned nSeed : {1U, 2U}) {
        Picture picture(16, 4, nSeed);
        EXPECT_OK(mix.Send(0, picture));
        EXPECT_OK(mix.Send(0, picture));
        for (unsigned char* pOut : {out.data(), static_cast<unsigned char*>(nullptr)}) {
            ExpectFailure(AVFilter_Video_MIXRecv(mix.Get(), pOut, pOut == nullptr ? &nLen : nullptr),
                          AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        }
        EXPECT_TRUE(nLen == -5 && out == Bytes(96));
        EXPECT_EQ(mix.Recv(), Picture(16, 4, 1).bytes);
    }
    // It is still kept when the mix is destroyed.
    ExpectFailure(AVFilter_Video_MIXRecv(mix.Get(), nullptr, &nLen), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
}

} // namespace
