// Audio mixes: exact to the sample against sums computed here.

#include "graph.h"

#include <climits>

namespace
{

using test::AudioGraph;
using test::AudioInfo;
using test::ExpectFailure;
using test::Samples16;

// Values whose sums over eight inputs every format here holds exactly.
template <class Sample>
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

template <class Sample>
void Add(std::vector<Sample>& sum, const std::vector<Sample>& block)
{
    std::transform(sum.begin(), sum.end(), block.begin(), sum.begin(),
                   [](Sample a, Sample b) { return static_cast<Sample>(a + b); });
}

std::string AmixOf(int nInputs, const char* szFormat)
{
    std::string descr;
    for (int i = 0; i < nInputs; ++i) {
        descr += "[i" + std::to_string(i) + "]";
    }
    return descr + "amix=inputs=" + std::to_string(nInputs) +
           ":normalize=0,aformat=sample_fmts=" + szFormat + "[out]";
}

std::vector<AVFILTER_AUDIO_INFO> Inputs(int nInputs, int nFormat, int nSamples, int nChannels)
{
    std::vector<AVFILTER_AUDIO_INFO> vec_Infos;
    for (int i = 0; i < nInputs; ++i) {
        const std::string label = "i" + std::to_string(i);
        vec_Infos.push_back(AudioInfo(nFormat, 48000, nSamples, nChannels, label.c_str(), i));
    }
    return vec_Infos;
}

template <class Sample>
void ExpectExactSums(int nFormat, const char* szFormat)
{
    for (const int nInputs : {1, 2, 8}) {
        for (const int nSamples : {64, 441, 480, 1024, 4096}) {
            SCOPED_TRACE(std::to_string(nInputs) + " inputs, blocks of " + std::to_string(nSamples));
            const int nChannels = 1 + nSamples % 3;
            AudioGraph mix(AmixOf(nInputs, szFormat), Inputs(nInputs, nFormat, nSamples, nChannels));
            for (unsigned nRound = 0; nRound < 5; ++nRound) {
                std::vector<Sample> sum(static_cast<std::size_t>(nSamples * nChannels));
                for (int i = 0; i < nInputs; ++i) {
                    const auto block = Signal<Sample>(sum.size(), 100 * nRound + static_cast<unsigned>(i));
                    EXPECT_TRUE(mix.Recv<Sample>().empty()) << "before all inputs have a block";
                    mix.Send(i, block);
                    Add(sum, block);
                }
                ASSERT_EQ(mix.Recv<Sample>(), sum) << nRound;
            }
        }
    }
}

TEST(AudioMix, IsTheExactSum)
{
    ExpectExactSums<std::int16_t>(test::kS16, "s16");
    ExpectExactSums<float>(test::kFloat, "flt");
}

// Four blocks of the first input are there before any of the second's, which are a third as long.
TEST(AudioMix, WaitsForLateBlocksAndKeepsExtraOnes)
{
    std::vector<AVFILTER_AUDIO_INFO> vec_Infos = Inputs(2, test::kS16, 480, 1);
    vec_Infos[1].nNbSamples = 160;
    AudioGraph mix(AmixOf(2, "s16"), vec_Infos);
    Samples16 sum;
    for (unsigned i = 0; i < 4; ++i) {
        const auto block = Signal<std::int16_t>(480, i);
        mix.Send(0, block);
        sum.insert(sum.end(), block.begin(), block.end());
        EXPECT_TRUE(mix.Recv().empty());
    }
    Samples16 mixed;
    for (std::size_t i = 0; i < sum.size(); i += 160) {
        mix.Send(1, Samples16(160, static_cast<std::int16_t>(i)));
        std::for_each(&sum[i], &sum[i] + 160,
                      [i](auto& n) { n = static_cast<std::int16_t>(n + static_cast<int>(i)); });
        for (auto block = mix.Recv(); !block.empty(); block = mix.Recv()) {
            mixed.insert(mixed.end(), block.begin(), block.end());
        }
        EXPECT_LE(mixed.size(), i + 160);
    }
    EXPECT_EQ(mixed, sum);
}

TEST(AudioMix, NamesInputsByIdAndTheFirstOfEqualIdsGetsAll)
{
    AudioGraph sides(
        "[l][r]amerge=inputs=2,aformat=sample_fmts=s16[out]",
        {AudioInfo(test::kS16, 48000, 64, 1, "l", 1), AudioInfo(test::kS16, 48000, 64, 1, "r", -3)});
    sides.Send(-3, Samples16(64, -5));
    sides.Send(1, Samples16(64, 7));
    const auto both = sides.Recv();
    ASSERT_EQ(both.size(), 128U);
    EXPECT_TRUE(both[0] == 7 && both[1] == -5);

    AudioGraph equal("[a]anull[out];[b]anullsink", {AudioInfo(test::kS16, 48000, 64, 1, "a", 9),
                                                    AudioInfo(test::kS16, 48000, 64, 1, "b", 9)});
    for (unsigned i = 0; i < 3; ++i) {
        equal.Send(9, Signal<std::int16_t>(64, i));
        EXPECT_EQ(equal.Recv(), Signal<std::int16_t>(64, i));
    }
}

TEST(AudioMix, TakesShortBlocksAndRefusesOtherSizesWithoutLosingAny)
{
    AudioGraph mix("[a]anull[out]", {{AudioInfo(test::kS16, 48000, 480, 2, "a", 1)}});
    for (const int nBytes : {1921, INT_MAX, -1, INT_MIN}) {
        ExpectFailure(mix.Send(1, Samples16(1000), nBytes), AVFILTER_ERROR_AUDIO_INVALID_PARAM);
    }
    for (const std::size_t nSamples : {0U, 1U, 480U, 960U}) {
        const auto block = Signal<std::int16_t>(nSamples, 1);
        mix.Send(1, block);
        const auto out = mix.Recv();
        ASSERT_EQ(out.size(), 960U);
        EXPECT_TRUE(std::equal(block.begin(), block.end(), out.begin()));
    }
    EXPECT_TRUE(mix.Recv().empty()) << "a refused block came out";
}

// Planar output of one channel is as good as packed; plane 0 of several is not the whole block, even
// where the buffer behind it is large enough.
TEST(AudioMix, RefusesPlanarOutputOfSeveralChannels)
{
    for (const std::size_t nSamples : {8U, 4096U}) {
        for (const std::size_t nChannels : {1U, 2U}) {
            AudioGraph mix("[i0]aformat=sample_fmts=s16p[out]",
                           Inputs(1, test::kS16, static_cast<int>(nSamples), static_cast<int>(nChannels)));
            const auto block = Signal<std::int16_t>(nSamples * nChannels, 1);
            mix.Send(0, block);
            EXPECT_EQ(mix.Recv(), nChannels == 1 ? block : Samples16());
        }
    }
}

TEST(AudioMix, OneHourOfEightInputsIsCompleteInFlatMemory)
{
    constexpr int kSamples = 4800;
    constexpr int kBlocks = 3600 * 48000 / kSamples;
    const AudioGraph mix(AmixOf(8, "s16"), Inputs(8, test::kS16, kSamples, 1));
    std::vector<Samples16> vec_Blocks;
    Samples16 sum(kSamples);
    for (unsigned i = 0; i < 8; ++i) {
        vec_Blocks.push_back(Signal<std::int16_t>(kSamples, i));
        Add(sum, vec_Blocks[i]);
    }
    Samples16 out(kSamples);
    auto* pOut = reinterpret_cast<unsigned char*>(out.data());
    int nBytes = 0;
    std::size_t nBefore = 0;
    for (int nBlock = 0; nBlock < kBlocks; ++nBlock) {
        for (int i = 0; i < 8; ++i) {
            auto* pIn = reinterpret_cast<unsigned char*>(vec_Blocks[static_cast<std::size_t>(i)].data());
            ASSERT_TRUE(AVFilter_Audio_MIXSend(mix.Get(), i, pIn, 2 * kSamples));
        }
        ASSERT_TRUE(AVFilter_Audio_MIXRecv(mix.Get(), pOut, &nBytes) && nBytes == 2 * kSamples);
        ASSERT_EQ(out, sum) << nBlock;
        nBefore = nBlock == kBlocks / 10 ? test::ResidentBytes() : nBefore;
    }
#ifndef TEST_WITH_LEAK_CHECK // which keeps what is freed for a while
    EXPECT_LT(test::ResidentBytes(), nBefore + (std::size_t{512} << 10));
#endif
    EXPECT_TRUE(mix.Recv().empty());
}

} // namespace
