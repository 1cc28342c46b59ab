// Video mixes of several inputs, on FFmpeg's own filters.
#include "support/graph.h"

#include <algorithm>

namespace
{

using test::Bytes;
using test::ExpectFailure;
using test::Picture;
using test::VideoGraph;

AVFILTER_VIDEO_INFO VideoInput(const std::string& name, int nInputId, int nWidth, int nHeight,
                               int nTimeBase = 25)
{
    return test::Named(test::VideoInfo(nWidth, nHeight, nTimeBase), name, nInputId);
}

// Pictures of noise, by seed, put into one at even coordinates.
struct Part {
    Picture picture;
    int nX;
    int nY = 0;
};
Bytes Compose(int nWidth, int nHeight, const std::vector<Part>& vec_Parts)
{
    Picture whole(nWidth, nHeight);
    for (Part part : vec_Parts) {
        for (int i = 0; i < 3; ++i) {
            const int n = i == 0 ? 1 : 2;
            for (int row = 0; row < part.picture.nHeight / n; ++row) {
                std::copy_n(part.picture.Plane(i) + row * part.picture.nWidth / n, part.picture.nWidth / n,
                            whole.Plane(i) + (part.nY / n + row) * nWidth / n + part.nX / n);
            }
        }
    }
    return whole.bytes;
}

TEST(VideoMix, InputsAreNamedByTheirIdsAndOfEqualOnesTheFirstIsFed)
{
    const VideoGraph mix("[x][y][z]hstack=inputs=3[out]",
                         {VideoInput("x", 7, 16, 4), VideoInput("y", -2, 24, 4), VideoInput("z", 0, 8, 4)});
    for (const auto& [nId, nWidth] : {std::pair(0, 8), {7, 16}, {-2, 24}}) {
        EXPECT_TRUE(mix.Recv().empty());
        Picture picture(nWidth, 4);
        EXPECT_OK(mix.Send(nId, picture));
    }
    EXPECT_EQ(mix.Recv(), Compose(48, 4, {{Picture(16, 4), 0}, {Picture(24, 4), 16}, {Picture(8, 4), 40}}));

    const VideoGraph twins("[b]nullsink;[a]split[x][y];[x][y]hstack[out]",
                           {VideoInput("a", 4, 16, 4), VideoInput("b", 4, 16, 4)});
    Picture picture(16, 4);
    EXPECT_OK(twins.Send(4, picture));
    EXPECT_EQ(twins.Recv(), Compose(32, 4, {{picture, 0}, {picture, 16}}));
}

TEST(VideoMix, LateMissingAndExtraPicturesQueueUp)
{
    const VideoGraph mix("[a][b]hstack[out]", {VideoInput("a", 0, 16, 4), VideoInput("b", 1, 16, 4)});
    unsigned nSent[2] = {};
    unsigned nReceived = 0;
    for (const int nInput : {0, 0, 0, 1, 1, 0, 1, 1, 1, 1, 0, 0, 0}) {
        const unsigned n = nSent[nInput]++;
        Picture picture(16, 4, n + (nInput == 0 ? 0U : 50U));
        EXPECT_OK(mix.Send(nInput, picture));
        const Bytes out = mix.Recv();
        EXPECT_EQ(!out.empty(), nReceived < std::min(nSent[0], nSent[1]));
        if (!out.empty()) {
            const Picture right(16, 4, nReceived + 50);
            EXPECT_EQ(out, Compose(32, 4, {{Picture(16, 4, nReceived++), 0}, {right, 16}}));
        }
    }
    EXPECT_EQ(nReceived, 6U);
}

// The second input's pictures last twice as long.
TEST(VideoMix, InputsArePairedByTheTimeThatEachCountsForItself)
{
    const VideoGraph mix("[a][b]overlay=8:2,format=yuv420p[out]",
                         {VideoInput("a", 0, 32, 8, 50), VideoInput("b", 1, 16, 4, 25)});
    for (const unsigned n : {0U, 1U, 2U, 3U, 4U, 5U}) {
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
        EXPECT_EQ(mix.Recv(), Compose(32, 8, {{Picture(32, 8, n), 0}, {Picture(16, 4, 50 + n / 2), 8, 2}}));
    }
}

// A whole picture is the graph's to write into until it is received; separate planes are copied.
TEST(VideoMix, WhoseBytesFiltersWriteInto)
{
    for (const char* szDescr : {"[a]negate[out]", "[a]drawbox=0:0:8:4:red:fill[out]"}) {
        const VideoGraph mix(szDescr, {{VideoInput("a", 0, 32, 8)}});
        const Picture original(32, 8);
        Picture sent = original;
        EXPECT_OK(mix.Send(0, sent));
        const Bytes copied = mix.Recv();
        EXPECT_TRUE(sent.bytes == original.bytes && copied != original.bytes) << szDescr;
        EXPECT_OK(mix.Send(0, sent, true));
        EXPECT_EQ(mix.Recv(), copied);
        EXPECT_EQ(sent.bytes, copied) << szDescr;
    }
}

TEST(VideoMix, APictureThatCannotBeHandedOutIsKept)
{
    const VideoGraph mix("[a]null[out]", {{VideoInput("a", 0, 16, 4)}});
    int nLen = -5;
    Bytes out(96);
    ExpectFailure(AVFilter_Video_MIXRecv(mix.Get(), nullptr, nullptr), AVFILTER_ERROR_VIDEO_RECEIVE_FRAME);
    for (const unsigned nSeed : {1U, 2U, 3U}) {
        Picture picture(16, 4, nSeed);
        EXPECT_OK(mix.Send(0, picture));
    }
    for (const unsigned nSeed : {1U, 2U, 3U}) {
        for (int i = 0; i < 2; ++i) {
            ExpectFailure(AVFilter_Video_MIXRecv(mix.Get(), nullptr, &nLen),
                          AVFILTER_ERROR_VIDEO_INVALID_PARAM);
            ExpectFailure(AVFilter_Video_MIXRecv(mix.Get(), out.data(), nullptr),
                          AVFILTER_ERROR_VIDEO_INVALID_PARAM);
        }
        EXPECT_TRUE(nLen == -5 && out == Bytes(96));
        if (nSeed < 3) { // the third is still kept when the mix is destroyed
            EXPECT_EQ(mix.Recv(), Picture(16, 4, nSeed).bytes);
        }
    }
}

} // namespace
