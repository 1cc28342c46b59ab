// The audio filter: what comes out of graphs that make, measure or hold back sound.

#include "support/graph.h"

namespace
{

using test::AudioGraph;
using test::AudioInfo;
using test::ExpectFailure;

TEST(AudioFilter, ReportsTheLineSizeOfPlaneZero)
{
    const struct {
        const char* szDescr;
        AVFILTER_AUDIO_INFO st_Info;
        std::size_t nBytes; // 0: more planes than a frame names, refused
        bool bPadded;       // a filter made a buffer of its own, which may be larger
    } kCases[] = {
        {"[in]anull[out]", AudioInfo(test::kS16, 48000, 480, 2), 1920, false},
        {"anull", AudioInfo(test::kFloat, 96000, 441, 6), 10584, false},
        {"anull", AudioInfo(test::kS16, 8000, 1, 16), 32, false},
        {"anull", AudioInfo(0, 8000, 1, 1), 1, false},
        {"anull", AudioInfo(test::kS16Planar, 48000, 480, 8), 960, false},
        {"anull", AudioInfo(test::kS16Planar, 48000, 480, 16), 0, false},
        {"aresample=async=1", AudioInfo(test::kS16, 48000, 480, 1), 960, true},
        {"aformat=sample_fmts=flt:channel_layouts=mono", AudioInfo(test::kS16, 48000, 480, 1), 1920, true},
        {"aformat=sample_fmts=s16p:channel_layouts=stereo", AudioInfo(test::kS16, 48000, 480, 1), 960,
         true},
    };
    for (const auto& st_Case : kCases) {
        SCOPED_TRACE(st_Case.szDescr);
        const AudioGraph filter(st_Case.szDescr, st_Case.st_Info);
        for (int i = 0; i < 3; ++i) {
            const std::size_t nBytes = filter.Cvt<char>().size();
            EXPECT_GE(nBytes, st_Case.nBytes);
            EXPECT_LT(nBytes, st_Case.bPadded ? 2 * st_Case.nBytes : st_Case.nBytes + 1);
        }
    }
}

// asetpts=N gives the blocks a time, counted in samples. Four blocks leave the graph for each that enters it: one per
// call, and the rest waits in order.
TEST(AudioFilter, QueuesWhatTheGraphMakesBeyondOneBlock)
{
    const AudioGraph filter("asetpts=N,aeval=exprs=t:c=same,aformat=sample_fmts=flt,asetnsamples=n=120",
                            AudioInfo(test::kS16, 48000, 480, 1));
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

TEST(AudioFilter, AndMixRefuseWhatFFmpegRefuses)
{
    const AVFILTER_AUDIO_INFO st_Good = AudioInfo(test::kS16, 48000, 480, 2);
    constexpr test::Handle kCreate = 3;
    constexpr test::Handle kParse = 4;
    constexpr test::Handle kConfig = 5;
    test::ExpectRefused<AVFILTER_AUDIO_INFO>({{"anull", {AudioInfo(-1, 48000, 480, 2)}, kCreate},
                                              {"anull", {AudioInfo(999, 48000, 480, 2)}, kCreate},
                                              {"anull", {AudioInfo(test::kS16, -1, 480, 2)}, kCreate},
                                              {"anull", {AudioInfo(test::kS16, 48000, 480, 0)}, kCreate},
                                              {"anull", {AudioInfo(test::kS16, 48000, 480, -2)}, kCreate},
                                              {"nosuchfilter", {st_Good}, kParse},
                                              {"[in]hflip[out]", {st_Good}, kParse},
                                              {"[in]anullsink", {st_Good}, kConfig},
                                              {"[in]asplit[out][more]", {st_Good}, kConfig}});
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
