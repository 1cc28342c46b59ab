// Video mixes of several inputs, on FFmpeg's own filters.
#include "graph.h"

#include <algorithm>
#include <string>

namespace
{

using test::Bytes;
using test::ExpectFailure;
using test::Picture;
using test::VideoGraph;
using test::VideoInput;

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

TEST(VideoMix, CompositionsAreExact)
{
    for (const bool bWhole : {false, true}) {
        const VideoGraph overlay("[cam][screen]overlay=8:2,format=yuv420p[out]",
                                 {VideoInput("cam", 1, 64, 16), VideoInput("screen", 2, 16, 8)});
        const VideoGraph stack("[l][r]hstack[out]", {VideoInput("l", 1, 16, 8), VideoInput("r", 2, 24, 8)});
        for (unsigned n = 0; n < 4; ++n) {
            Picture large(64, 16, n);
            Picture small(16, 8, n + 10);
            Picture right(24, 8, n + 20);
            EXPECT_OK(overlay.Send(1, large, bWhole));
            EXPECT_OK(overlay.Send(2, small, bWhole));
            EXPECT_EQ(overlay.Recv(), Compose(64, 16, {{large, 0}, {small, 8, 2}}));
            EXPECT_OK(stack.Send(2, right, bWhole));
            EXPECT_OK(stack.Send(1, small, bWhole));
            EXPECT_EQ(stack.Recv(), Compose(40, 8, {{small, 0}, {right, 16}}));
        }
    }
}

TEST(VideoMix, InputsAreNamedByTheirIds)
{
    std::vector<AVFILTER_VIDEO_INFO> vec_Inputs;
    std::string szDescr;
    std::vector<Part> vec_Expected;
    for (int i = 0; i < 8; ++i) {
        const int nId = (i * 5 + 3) % 8 - 2;
        const std::string szName = "in" + std::to_string(i);
        vec_Inputs.push_back(VideoInput(szName.c_str(), nId, 16, 4));
        szDescr += "[" + szName + "]";
        vec_Expected.push_back({Picture(16, 4, static_cast<unsigned>(nId)), 16 * i});
    }
    const VideoGraph mix(szDescr + "hstack=inputs=8[out]", vec_Inputs);
    for (int nId = 5; nId >= -2; --nId) {
        EXPECT_TRUE(mix.Recv().empty());
        Picture picture(16, 4, static_cast<unsigned>(nId));
        EXPECT_OK(mix.Send(nId, picture));
    }
    EXPECT_EQ(mix.Recv(), Compose(128, 4, vec_Expected));

    // Of equal ids the first is fed.
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

// The filters write each picture's time over its luma: ten steps, or twenty, per picture.
TEST(VideoMix, EachInputCountsItsOwnTime)
{
    const VideoGraph mix("[a]geq=lum=T*250+0.25:cb=128:cr=128[x];[b]geq=lum=T*500+0.25:cb=128:cr=128[y];"
                         "[x][y]hstack,format=yuv420p[out]",
                         {VideoInput("a", 0, 16, 4), VideoInput("b", 1, 16, 4)});
    Picture picture(16, 4);
    for (unsigned n = 0; n < 4; ++n) {
        for (const int nInput : {0, 1}) {
            for (const int nCount : {-1, 1 << 20}) { // what is refused does not use up a time
                ExpectFailure(AVFilter_Video_MIXSend(mix.Get(), nInput, picture.Plane(0), picture.Plane(1),
                                                     picture.Plane(2), 64, 16, nCount),
                              AVFILTER_ERROR_VIDEO_INVALID_PARAM);
            }
            EXPECT_OK(mix.Send(nInput, picture, n % 2 == 0));
        }
        const Bytes out = mix.Recv();
        EXPECT_TRUE(out.at(0) == 10 * n && out.at(31) == 20 * n) << n;
    }
}

TEST(VideoMix, InputsArePairedByTime)
{
    const VideoGraph mix("[a][b]overlay,format=yuv420p[out]",
                         {VideoInput("a", 0, 32, 4, 50), VideoInput("b", 1, 16, 4, 25)});
    for (unsigned n = 0; n < 6; ++n) {
        Picture large(32, 4, n);
        Picture small(16, 4, 50 + n / 2);
        EXPECT_OK(mix.Send(0, large));
        EXPECT_TRUE(n % 2 != 0 || mix.Send(1, small));
    }
    for (unsigned n = 0; n < 4; ++n) {
        EXPECT_EQ(mix.Recv(), Compose(32, 4, {{Picture(32, 4, n), 0}, {Picture(16, 4, 50 + n / 2), 0}}));
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
