// The audio filter: what comes out of graphs that make, measure or hold back sound.

#include "graph.h"

#include <cmath>

namespace
{

using test::AudioGraph;
using test::AudioInfo;
using test::ExpectFailure;

const AVFILTER_AUDIO_INFO kStereo = AudioInfo(test::kS16, 48000, 480, 2);
const AVFILTER_AUDIO_INFO kMono = AudioInfo(test::kS16, 48000, 480, 1);

TEST(AudioFilter, ReportsTheLineSizeOfPlaneZero)
{
    const struct {
        const char* szDescr;
        AVFILTER_AUDIO_INFO st_Info;
        std::size_t nBytes;
        bool bPadded; // a filter made a buffer of its own, which may be larger
    } kCases[] = {
        {"[in]anull[out]", kStereo, 1920, false},
        {"anull", AudioInfo(test::kFloat, 96000, 441, 6), 10584, false},
        {"anull", AudioInfo(test::kS16, 8000, 1, 16), 32, false},
        {"anull", AudioInfo(test::kS16Planar, 48000, 480, 8), 960, false},
        {"aresample=async=1", kStereo, 1920, true},
        {"aformat=sample_fmts=flt:channel_layouts=mono", kStereo, 1920, true},
        {"aformat=sample_fmts=s16p", kStereo, 960, true},
    };
    for (const auto& st_Case : kCases) {
        SCOPED_TRACE(st_Case.szDescr);
        AudioGraph filter(st_Case.szDescr, st_Case.st_Info);
        for (int i = 0; i < 3; ++i) {
            const std::size_t nBytes = filter.Cvt<char>().size();
            EXPECT_GE(nBytes, st_Case.nBytes);
            EXPECT_LT(nBytes, st_Case.bPadded ? 2 * st_Case.nBytes : st_Case.nBytes + 1);
        }
    }
}

TEST(AudioFilter, GivesTheSoundThatTheDescriptionMakes)
{
    AudioGraph sine("[in]anullsink;sine=frequency=1000:sample_rate=48000:samples_per_frame=480[out]",
                    kMono);
    for (int i = 0; i < 3; ++i) {
        const auto tone = sine.Cvt(); // ten periods of 48 samples
        ASSERT_GE(tone.size(), 480U);
        for (std::size_t k = 0; k < 480; ++k) {
            ASSERT_NEAR(tone[k], 4096 * std::sin(static_cast<double>(k) * M_PI / 24), 16) << k;
        }
    }
    AudioGraph levels("[in]aeval=exprs=0.25|-0.5:c=same,aformat=sample_fmts=s16[out]", kStereo);
    const auto level = levels.Cvt();
    for (std::size_t i = 0; i < 960; ++i) {
        ASSERT_EQ(level.at(i), i % 2 == 0 ? 8192 : -16384) << i;
    }
}

// asetpts=N gives the blocks a time, counted in samples. Four blocks leave the graph for each that
// enters it: one per call, and the rest waits in order.
TEST(AudioFilter, QueuesWhatTheGraphMakesBeyondOneBlock)
{
    AudioGraph filter("asetpts=N,aeval=exprs=t:c=same,aformat=sample_fmts=flt,asetnsamples=n=120", kMono);
    for (int i = 0; i < 40; ++i) {
        // The receiving call of mixes takes this handle too, and counts without padding.
        const auto block = i < 10 ? filter.Cvt<float>() : filter.Recv<float>();
        ASSERT_TRUE(block.size() == 120 || (i < 10 && block.size() > 120)) << i;
        for (int k = 0; k < 120; ++k) {
            ASSERT_NEAR(block[static_cast<std::size_t>(k)], (120 * i + k) / 48000.0, 1e-6) << i;
        }
    }
    EXPECT_TRUE(filter.Recv().empty());
}

TEST(AudioFilter, HoldsBlocksBackUntilTheGraphHasEnough)
{
    AudioGraph filter("aeval=exprs=0.5:c=same,aformat=sample_fmts=s16,asetnsamples=n=1440:p=0", kMono);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(filter.Cvt().empty());
        EXPECT_TRUE(filter.Cvt().empty());
        const auto block = filter.Cvt();
        ASSERT_GE(block.size(), 1440U);
        EXPECT_EQ(std::count(block.begin(), block.begin() + 1440, 16384), 1440);
    }
}

TEST(AudioFilter, RefusesMorePlanesThanAFrameNames)
{
    AudioGraph filter("anull", AudioInfo(test::kS16Planar, 48000, 480, 16));
    EXPECT_TRUE(filter.Cvt().empty());
    EXPECT_TRUE(filter.Cvt().empty());
}

TEST(AudioFilter, AndMixRefuseWhatFFmpegRefuses)
{
    const auto info = [](int nFormat, int nRate, int nChannels) {
        return AudioInfo(nFormat, nRate, 480, nChannels, "in");
    };
    const AVFILTER_AUDIO_INFO st_Good = info(test::kS16, 48000, 2);
    constexpr test::Handle kCreate = 3;
    constexpr test::Handle kParse = 4;
    constexpr test::Handle kConfig = 5;
    test::ExpectRefused<test::Audio>({{"anull", {info(-1, 48000, 2)}, kCreate},
                                      {"anull", {info(999, 48000, 2)}, kCreate},
                                      {"anull", {info(test::kS16, 0, 2)}, kCreate},
                                      {"anull", {info(test::kS16, -8000, 2)}, kCreate},
                                      {"anull", {info(test::kS16, 48000, 0)}, kCreate},
                                      {"anull", {info(test::kS16, 48000, -2)}, kCreate},
                                      {"nosuchfilter", {st_Good}, kParse},
                                      {"volume=nosuchoption=1", {st_Good}, kParse},
                                      {"[in]anull[out", {st_Good}, kParse},
                                      {"[in]hflip[out]", {st_Good}, kParse},
                                      {"[in]anullsink", {st_Good}, kConfig},
                                      {"[in]asplit[out][more]", {st_Good}, kConfig},
                                      {"channelmap=5|6", {st_Good}, kConfig}});
}

// Creation lets these through; the working calls report them without the flag.
TEST(AudioFilter, AndMixReportUselessBlockLengthsWithoutTheFlag)
{
    for (const int nSamples : {0, -1}) {
        constexpr unsigned long long kCode = AVFILTER_ERROR_AUDIO_FRAME_BUFFER;
        unsigned char byte = 0xCD;
        int nOut = 42;
        const AudioGraph filter("anull", AudioInfo(test::kS16, 48000, nSamples, 2));
        ExpectFailure(AVFilter_Audio_Cvt(filter.Get(), &byte, 1, &byte, &nOut), kCode, false);
        ExpectFailure(AVFilter_Audio_Cvt(filter.Get(), &byte, 1, &byte, &nOut), kCode, false);
        const test::KeepsMemoryByContract keeps;
        ExpectFailure(AVFilter_Audio_MIXSend(filter.Get(), 0, &byte, 1), kCode, false);
        EXPECT_TRUE(nOut == 42 && byte == 0xCD);
    }
}

} // namespace
