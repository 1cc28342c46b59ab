// Audio filters, on graphs that make, measure or hold back sound, and mixes, exact to the sample.

#include "support/graph.h"

extern "C" {
#include <libavutil/samplefmt.h>
}

#include <climits>
#include <functional>

namespace
{

using namespace test;
using Samples16 = std::vector<std::int16_t>;

TEST(AudioFilter, ReportsTheLineSizeOfPlaneZero)
{
    const struct {
        const char* szDescr;
        AVFILTER_AUDIO_INFO st_Info;
        std::size_t nBytes; // 0: more planes than a frame names, refused
        bool bPadded;       // a filter made a buffer of its own, which may be larger
    } kCases[] = {
        {"[in]anull[out]", AudioInfo(AV_SAMPLE_FMT_FLT, 96000, 441, 6), 10584, false},
        {"anull", AudioInfo(AV_SAMPLE_FMT_U8, 8000, 1, 1), 1, false},
        {"anull", AudioInfo(kS16Planar, 48000, 480, 8), 960, false},
        {"anull", AudioInfo(kS16Planar, 48000, 480, 16), 0, false},
        {"aformat=sample_fmts=flt:channel_layouts=mono", AudioInfo(kS16, 48000, 480, 1), 1920, true},
        {"aformat=sample_fmts=s16p:channel_layouts=stereo", AudioInfo(kS16, 48000, 480, 1), 960, true},
    };
    for (const auto& st : kCases) {
        const AudioGraph filter(st.szDescr, st.st_Info);
        for (int i = 0; i < 3; ++i) {
            const std::size_t nBytes = filter.Cvt<char>().size();
            EXPECT_TRUE(nBytes == st.nBytes || (st.bPadded && nBytes > st.nBytes && nBytes < 2 * st.nBytes))
                << st.szDescr << nBytes;
        }
    }
}

// asetpts=N gives the blocks a time, counted in samples. Four blocks leave the graph for each that enters it: one per
// call, and the rest waits in order.
TEST(AudioFilter, QueuesWhatTheGraphMakesBeyondOneBlock)
{
    const AudioGraph filter("asetpts=N,aeval=exprs=t:c=same,aformat=sample_fmts=flt,asetnsamples=n=120",
                            AudioInfo(kS16, 48000, 480, 1));
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

// Values whose sums over eight inputs fit.
Samples16 Signal(int nSamples, unsigned nSeed)
{
    Samples16 samples;
    for (const unsigned char n : Noise(static_cast<std::size_t>(nSamples), nSeed)) {
        samples.push_back(static_cast<std::int16_t>(16 * n - 2048));
    }
    return samples;
}

// Each of the inputs gets the next one of nine signals: all sums differ from their neighbours.
TEST(AudioMix, IsTheExactSumAndOneHourOfItIsCompleteInFlatMemory)
{
    std::vector<AVFILTER_AUDIO_INFO> vec_Infos;
    std::vector<Samples16> vec_Signals{Signal(9600, 8)};
    for (int i = 0; i < 8; ++i) {
        const std::string label(1, static_cast<char>('a' + i));
        vec_Infos.push_back(Named(AudioInfo(kS16, 48000, 4800, 2), label, i));
        vec_Signals.push_back(Signal(9600, static_cast<unsigned>(i)));
    }
    const AudioGraph mix("[a][b][c][d][e][f][g][h]amix=inputs=8:normalize=0,aformat=sample_fmts=s16[out]",
                         vec_Infos);
    Samples16 out(9600);
    auto* const pOut = reinterpret_cast<unsigned char*>(out.data());
    int nOut = 0;
    std::size_t nBefore = 0;
    for (std::size_t nBlock = 0; nBlock < 36000; ++nBlock) {
        Samples16 sum(9600);
        for (int i = 0; i < 8; ++i) {
            ASSERT_FALSE(AVFilter_Audio_MIXRecv(mix.Get(), pOut, &nOut)) << "without all blocks";
            Samples16& signal = vec_Signals[(nBlock + static_cast<std::size_t>(i)) % 9];
            auto* const pSignal = reinterpret_cast<unsigned char*>(signal.data());
            ASSERT_TRUE(AVFilter_Audio_MIXSend(mix.Get(), i, pSignal, 19200));
            std::transform(sum.begin(), sum.end(), signal.begin(), sum.begin(), std::plus());
        }
        ASSERT_TRUE(AVFilter_Audio_MIXRecv(mix.Get(), pOut, &nOut));
        ASSERT_TRUE(nOut == 19200 && out == sum) << nBlock;
        nBefore = nBlock == 3600 ? ResidentBytes() : nBefore;
    }
#ifndef TEST_WITH_LEAK_CHECK // which keeps what is freed for a while
    EXPECT_LT(ResidentBytes(), nBefore + (std::size_t{512} << 10));
#endif
}

TEST(AudioMix, TakesShortBlocksAndRefusesOtherSizesWithoutLosingAny)
{
    const AudioGraph mix("[in]anull[out]", {{AudioInfo(kS16, 48000, 480, 2)}});
    for (const int nBytes : {1921, INT_MAX, -1, INT_MIN}) {
        ExpectFailure(mix.Send(0, Samples16(1000), nBytes), AVFILTER_ERROR_AUDIO_INVALID_PARAM);
    }
    for (const int nSamples : {0, 1, 480, 960}) {
        const auto block = Signal(nSamples, 1);
        EXPECT_OK(mix.Send(0, block));
        const auto out = mix.Recv<std::int16_t>();
        EXPECT_TRUE(out.size() == 960 && std::equal(block.begin(), block.end(), out.begin()));
    }
    EXPECT_TRUE(mix.Recv().empty()) << "a refused block came out";
}

// Plane 0 of several channels is not the whole block, even where the buffer behind it is large enough.
TEST(AudioMix, RefusesPlanarOutputOfSeveralChannels)
{
    for (const int nSamples : {8, 4096}) {
        for (const int nChannels : {1, 2}) {
            const AudioGraph mix("[in]aformat=sample_fmts=s16p[out]",
                                 {{AudioInfo(kS16, 48000, nSamples, nChannels)}});
            const auto block = Signal(nSamples * nChannels, 1);
            EXPECT_OK(mix.Send(0, block));
            EXPECT_EQ(mix.Recv<std::int16_t>(), nChannels == 1 ? block : Samples16());
        }
    }
}

} // namespace
