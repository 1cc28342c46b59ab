// Audio mixes: exact to the sample against sums computed here.

#include "support/graph.h"

#include <climits>

namespace
{

using test::AudioGraph;
using test::AudioInfo;
using test::ExpectFailure;
using Samples16 = std::vector<std::int16_t>;

std::size_t Product(int a, int b)
{
    return static_cast<std::size_t>(a) * static_cast<std::size_t>(b);
}

// Values whose sums over eight inputs every format here holds exactly.
template <class Sample = std::int16_t>
std::vector<Sample> Signal(std::size_t nSamples, unsigned nSeed)
{
    const test::Bytes noise = test::Noise(2 * nSamples, nSeed);
    std::vector<Sample> samples(nSamples);
    for (std::size_t i = 0; i < nSamples; ++i) {
        const int n = (noise[2 * i] << 4 | noise[2 * i + 1] >> 4) - 2048;
        samples[i] = static_cast<Sample>(static_cast<float>(n) / (sizeof(Sample) == 2 ? 1.0F : 32768.0F));
    }
    return samples;
}

// Each input gets the next one of the signals, one more than there are inputs: all sums differ from their neighbours.
template <class Sample>
void ExpectExactSums(std::size_t nInputs, int nSamples, int nBlocks)
{
    SCOPED_TRACE(std::to_string(nInputs) + " inputs, blocks of " + std::to_string(nSamples));
    const int nChannels = 1 + nSamples % 3;
    const int nFormat = sizeof(Sample) == 2 ? test::kS16 : test::kFloat;
    std::string descr;
    std::vector<AVFILTER_AUDIO_INFO> vec_Infos;
    std::vector<std::vector<Sample>> vec_Signals{Signal<Sample>(Product(nSamples, nChannels), 99)};
    for (int i = 0; i < static_cast<int>(nInputs); ++i) {
        const std::string label(1, static_cast<char>('a' + i));
        descr.append("[").append(label).append("]");
        vec_Infos.push_back(test::Named(AudioInfo(nFormat, 48000, nSamples, nChannels), label, i));
        vec_Signals.push_back(Signal<Sample>(vec_Signals[0].size(), static_cast<unsigned>(i)));
    }
    descr.append("amix=inputs=")
        .append(std::to_string(nInputs))
        .append(":normalize=0,aformat=sample_fmts=");
    const AudioGraph mix(descr.append(nFormat == test::kS16 ? "s16[out]" : "flt[out]"), vec_Infos);
    const std::size_t nBytes = vec_Signals[0].size() * sizeof(Sample);
    test::GuardedBuffer out(nBytes);
    int nOut = 0;
    std::size_t nBefore = 0;
    for (int nBlock = 0; nBlock < nBlocks; ++nBlock) {
        std::vector<Sample> sum(vec_Signals[0].size());
        for (std::size_t i = 0; i < nInputs; ++i) {
            ASSERT_FALSE(AVFilter_Audio_MIXRecv(mix.Get(), out.Data(), &nOut)) << "without all blocks";
            auto& signal = vec_Signals[(static_cast<std::size_t>(nBlock) + i) % (nInputs + 1)];
            ASSERT_TRUE(AVFilter_Audio_MIXSend(mix.Get(), static_cast<int>(i),
                                               reinterpret_cast<unsigned char*>(signal.data()),
                                               static_cast<int>(nBytes)));
            std::transform(sum.begin(), sum.end(), signal.begin(), sum.begin(),
                           [](Sample a, Sample b) { return static_cast<Sample>(a + b); });
        }
        ASSERT_TRUE(AVFilter_Audio_MIXRecv(mix.Get(), out.Data(), &nOut));
        ASSERT_EQ(static_cast<std::size_t>(nOut), nBytes);
        ASSERT_EQ(std::memcmp(out.Data(), sum.data(), nBytes), 0) << nBlock;
        nBefore = nBlock == nBlocks / 10 ? test::ResidentBytes() : nBefore;
    }
#ifndef TEST_WITH_LEAK_CHECK // which keeps what is freed for a while
    EXPECT_LT(test::ResidentBytes(), nBefore + (std::size_t{512} << 10));
#endif
}

TEST(AudioMix, IsTheExactSumAndOneHourOfItIsCompleteInFlatMemory)
{
    for (const std::size_t nInputs : {1U, 2U, 8U}) {
        for (const int nSamples : {64, 441, 480, 1024, 4096}) {
            ExpectExactSums<std::int16_t>(nInputs, nSamples, 5);
            ExpectExactSums<float>(nInputs, nSamples, 5);
        }
    }
    ExpectExactSums<std::int16_t>(8, 4800, 3600 * 48000 / 4800);
}

TEST(AudioMix, NamesInputsByIdAndTheFirstOfEqualIdsGetsAll)
{
    const AVFILTER_AUDIO_INFO st_Info = AudioInfo(test::kS16, 48000, 64, 1);
    const AudioGraph sides("[l][r]amerge=inputs=2,aformat=sample_fmts=s16[out]",
                           {test::Named(st_Info, "l", 1), test::Named(st_Info, "r", -3)});
    sides.Send(-3, Samples16(64, -5));
    sides.Send(1, Samples16(64, 7));
    const auto both = sides.Recv<std::int16_t>();
    EXPECT_TRUE(both.size() == 128 && both[0] == 7 && both[1] == -5);

    const AudioGraph equal("[a]anull[out];[b]anullsink",
                           {test::Named(st_Info, "a", 9), test::Named(st_Info, "b", 9)});
    for (unsigned i = 0; i < 3; ++i) {
        equal.Send(9, Signal(64, i));
        EXPECT_EQ(equal.Recv<std::int16_t>(), Signal(64, i));
    }
}

TEST(AudioMix, TakesShortBlocksAndRefusesOtherSizesWithoutLosingAny)
{
    const AudioGraph mix("[in]anull[out]", {{AudioInfo(test::kS16, 48000, 480, 2)}});
    for (const int nBytes : {1921, INT_MAX, -1, INT_MIN}) {
        ExpectFailure(mix.Send(0, Samples16(1000), nBytes), AVFILTER_ERROR_AUDIO_INVALID_PARAM);
    }
    for (const std::size_t nSamples : {0U, 1U, 480U, 960U}) {
        const auto block = Signal(nSamples, 1);
        mix.Send(0, block);
        const auto out = mix.Recv<std::int16_t>();
        EXPECT_TRUE(out.size() == 960 && std::equal(block.begin(), block.end(), out.begin()));
    }
    EXPECT_TRUE(mix.Recv().empty()) << "a refused block came out";
}

// FFmpeg halves them in place, whole vector registers at a time: under valgrind nothing past a block's memory.
TEST(AudioMix, FiltersBlocksOfAnyLengthInPlace)
{
    for (const int nSamples : {1, 3, 7, 9, 15, 33}) {
        const AudioGraph mix("[in]volume=0.5,aformat=sample_fmts=flt[out]",
                             {{AudioInfo(test::kFloat, 48000, nSamples, 2)}});
        auto block = Signal<float>(Product(nSamples, 2), 1);
        mix.Send(0, block);
        std::transform(block.begin(), block.end(), block.begin(), [](float f) { return f / 2; });
        EXPECT_EQ(mix.Recv<float>(), block);
    }
}

// Planar output of one channel is as good as packed; plane 0 of several is not the whole block, even
// where the buffer behind it is large enough.
TEST(AudioMix, RefusesPlanarOutputOfSeveralChannels)
{
    for (const int nSamples : {8, 4096}) {
        for (const int nChannels : {1, 2}) {
            const AudioGraph mix("[in]aformat=sample_fmts=s16p[out]",
                                 {{AudioInfo(test::kS16, 48000, nSamples, nChannels)}});
            const auto block = Signal(Product(nSamples, nChannels), 1);
            mix.Send(0, block);
            EXPECT_EQ(mix.Recv<std::int16_t>(), nChannels == 1 ? block : Samples16());
        }
    }
}

} // namespace
