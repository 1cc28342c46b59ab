// What all families share: the report, the handles, and bad calls to every function.

#include "kinds.h"

#include <cerrno>
#include <filesystem>
#include <iterator>

namespace
{

using namespace test;

const bool g_bErrorAtStart = AVFilter_dwErrorCode != 0 || AVFilter_IsErrorOccur;

TEST(Report, KeepsTheLastCodeAndTellsErrno)
{
    EXPECT_FALSE(g_bErrorAtStart);
    ExpectFailure(AVFilter_VideoScale_Init(nullptr), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    errno = ENOTTY;
    int nSysError = 0;
    EXPECT_EQ(AVFilter_GetLastError(&nSysError), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    EXPECT_EQ(nSysError, ENOTTY);
    EXPECT_TRUE(AVFilter_IsErrorOccur) << "asking clears nothing";
    EXPECT_OK(AVFilter_Audio_Destroy(1));
}

TEST(Handles, AreTakenByTheirFamilyAloneAndUnknownOnesAreNoError)
{
    for (const Kind& kind : kKinds) {
        for (const Kind& destroyer : kKinds) {
            SCOPED_TRACE(std::string(kind.szName) + " destroyed as " + destroyer.szName);
            Handle hHandle = 0;
            EXPECT_OK(jobs::Create(kind, &hHandle, kSize));
            EXPECT_OK(destroyer.Destroy(~0ULL));
            EXPECT_OK(destroyer.Destroy(hHandle));
            if (destroyer.cFamily != kind.cFamily) {
                EXPECT_TRUE(Work(kind, hHandle));
                EXPECT_OK(kind.Destroy(hHandle));
            }
            ExpectFailure(Take(kind, hHandle, 100), NotFound(kind));
            if (kind.Send != nullptr) {
                ExpectFailure(Send(kind, hHandle, 0, 100), NotFound(kind));
            }
            EXPECT_OK(kind.Destroy(hHandle));
        }
    }
}

TEST(Handles, TenThousandCyclesKeepNoMemoryAndStartNoThread)
{
    const auto countThreads = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    };
    const auto nBefore = countThreads();
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.szName);
        int nCycle = 0;
        ExpectFlatMemory([&] {
            Handle hHandle = 0;
            ASSERT_TRUE(jobs::Create(kind, &hHandle, kSize) && Work(kind, hHandle));
            ASSERT_TRUE(kind.Send == nullptr || Send(kind, hHandle, 0, 101)); // something is left in it
            ASSERT_TRUE(kind.cFamily != 's' || AVFilter_VideoScale_Set(hHandle, 0, 64, 16, 0, 50, 16));
            ASSERT_TRUE(++nCycle > 1 || countThreads() == nBefore);
            ASSERT_TRUE(kind.Destroy(hHandle));
        });
    }
}

#define BAD(code, call)                                                                                    \
    {                                                                                                      \
        SCOPED_TRACE(#call);                                                                               \
        ExpectFailure(call, code);                                                                         \
        EXPECT_TRUE(h == 42 && n == 77);                                                                   \
    }

// With handle 0 and a null pointer in one call, the code tells which of the two is looked at first.
template <class Info>
void ExpectBadCalls(const std::string& null, Info st_Info)
{
    constexpr auto kInit = jobs::kInit<Info>;
    constexpr auto kMixInit = jobs::kMixInit<Info>;
    const Kind& filter = KindOf<Info>(false);
    const Kind& mix = KindOf<Info>(true);
    const Handle kBad = filter.nBase + 1, kUnknown = NotFound(filter);
    const Graph<Info> aFilter(null, st_Info);
    const Graph<Info> aMix("[in]" + null + "[out]", {{st_Info}});
    const Handle hFilter = aFilter.Get(), hMix = aMix.Get();
    unsigned char* const out = g_Out;
    const jobs::Block in{out, {32, 16, 32}, false};
    const jobs::Block none{nullptr, in.size, true};
    Handle h = 42;
    int n = 77;

    BAD(kBad, kInit(nullptr, null.c_str(), &st_Info))
    BAD(kBad, kInit(&h, nullptr, &st_Info))
    BAD(kBad, kInit(&h, null.c_str(), nullptr))
    BAD(kBad, filter.Take(0, none, out, &n))
    BAD(kBad, filter.Take(0, in, nullptr, &n))
    BAD(kBad, filter.Take(0, in, out, nullptr))
    BAD(kUnknown, filter.Take(0, in, out, &n))
    BAD(kUnknown, filter.Take(hMix, in, out, &n))

    Inputs<Info> good({st_Info, Named(st_Info, "b")}), withNull({st_Info, st_Info});
    (*withNull.Get())[1] = nullptr;
    Inputs<Info> endless({st_Info});
    std::memset((*endless.Get())[0]->szName, 'a', sizeof(st_Info.szName));
    Info** ppNone = nullptr;
    const std::string text = "[in]" + null + "[out];[b]" + null + "sink";
    const char* const szDescr = text.c_str();
    BAD(kBad, kMixInit(nullptr, good.Get(), 2, "out", szDescr))
    BAD(kBad, kMixInit(&h, nullptr, 2, "out", szDescr))
    BAD(kBad, kMixInit(&h, &ppNone, 2, "out", szDescr))
    BAD(kBad, kMixInit(&h, withNull.Get(), 2, "out", szDescr))
    BAD(kBad, kMixInit(&h, endless.Get(), 1, "out", szDescr))
    BAD(kBad, kMixInit(&h, good.Get(), 0, "out", szDescr))
    BAD(kBad, kMixInit(&h, good.Get(), -1, "out", szDescr))
    BAD(kBad, kMixInit(&h, good.Get(), 2, "out", nullptr))

    BAD(kBad, mix.Send(0, 3, none))
    BAD(kUnknown, mix.Send(0, 3, in))
    BAD(kUnknown, mix.Take(0, in, out, &n))
    BAD(mix.nBase + 9, mix.Take(hMix, in, out, &n))
    if (mix.cFamily == 'a') { // whose mixing calls know the handles of filters
        BAD(AVFILTER_ERROR_AUDIO_SEND_FRAME, mix.Send(hFilter, 0, in))
        ExpectFailure(mix.Send(hFilter, 1, in), kUnknown, false);
        ExpectFailure(mix.Send(hMix, 1, in), kUnknown, false);
        BAD(kBad, mix.Take(0, in, nullptr, &n))
        BAD(kBad, mix.Take(0, in, out, nullptr))
    } else {
        BAD(kUnknown, mix.Send(hFilter, 0, in))
        BAD(kUnknown, mix.Send(hMix, 1, in))
        BAD(kUnknown, mix.Take(0, in, nullptr, nullptr))
        BAD(kUnknown, mix.Take(hFilter, in, out, &n))
        BAD(mix.nBase + 9, mix.Take(hMix, in, nullptr, &n))
    }
    EXPECT_TRUE(filter.Take(hFilter, in, out, &n) && mix.Send(hMix, 0, in) && mix.Take(hMix, in, out, &n));
}

// By the mixing initialiser and, where the one input is "in", by the other.
template <class Info>
void ExpectRefused(Handle nCode, const char* szDescr, std::vector<Info> vec_Infos,
                   const char* szOut = "out")
{
    SCOPED_TRACE(szDescr);
    const KeepsMemoryByContract keeps(nCode < AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    Handle h = 42;
    Inputs<Info> inputs(vec_Infos);
    ExpectFailure(jobs::kMixInit<Info>(&h, inputs.Get(), inputs.Count(), szOut, szDescr), nCode);
    if (std::string(vec_Infos[0].szName) == "in") {
        ExpectFailure(jobs::kInit<Info>(&h, szDescr, vec_Infos.data()), nCode);
    }
    EXPECT_EQ(h, 42U);
}

TEST(BadCalls, GraphsThatFFmpegRefuses)
{
    const auto audio = [](Handle nCode, int nFormat, int nRate, int nChannels,
                          const char* szDescr = "anull") {
        ExpectRefused(nCode, szDescr, std::vector{AudioInfo(nFormat, nRate, 480, nChannels)});
    };
    audio(AVFILTER_ERROR_AUDIO_CREATE_FILTER, -1, 48000, 2);
    audio(AVFILTER_ERROR_AUDIO_CREATE_FILTER, kS16, -1, 2);
    audio(AVFILTER_ERROR_AUDIO_CREATE_FILTER, kS16, 48000, 0);
    audio(AVFILTER_ERROR_AUDIO_PARSE_GRAPH, kS16, 48000, 2, "[in]hflip[out]");
    audio(AVFILTER_ERROR_AUDIO_CONFIG_GRAPH, kS16, 48000, 2, "[in]asplit[out][more]");

    const auto video = ExpectRefused<AVFILTER_VIDEO_INFO>;
    const AVFILTER_VIDEO_INFO st_A = VideoInfo(16, 16);
    const AVFILTER_VIDEO_INFO st_B = Named(st_A, "b");
    for (const auto& st_Bad : {VideoInfo(0, 16), VideoInfo(16, 16, 0), VideoInfo(16, 16, 25, -1)}) {
        video(AVFILTER_ERROR_VIDEO_CREATE_SOURCE, "[in]null[out]", {st_Bad}, "out");
    }
    video(AVFILTER_ERROR_VIDEO_PARSE_GRAPH, "[in]aresample[out]", {st_A}, "out");
    video(kUnlinked, "[in]null[other]", {st_A}, "out");
    video(kUnlinked, "[b]null[out]", {st_B}, nullptr);
    video(kUnlinked, "[b]null[out]", {st_B}, "other");
    video(kUnlinked, "[b]null[out]", {st_B, st_A}, "out");
    video(AVFILTER_ERROR_VIDEO_CONFIG_GRAPH, "[b][in]hstack[out]", {st_B, VideoInfo(16, 8)}, "out");
    video(AVFILTER_ERROR_VIDEO_CREATE_SOURCE, "[b][in]hstack[out]", {st_B, VideoInfo(0, 8)}, "out");
}

TEST(BadCalls, FailWithTheirCodeAndTouchNothing)
{
    ExpectBadCalls("anull", AudioInfo(kS16, 48000, 32, 2));
    ExpectBadCalls("null", VideoInfo(32, 16));

    const Kind& scaler = kKinds[jobs::kScaler];
    unsigned char* const out = g_Out;
    Handle hUnset = 0, h = 42;
    int n = 77;
    EXPECT_OK(AVFilter_VideoScale_Init(&hUnset));
    BAD(AVFILTER_ERROR_VIDEO_INVALID_PARAM, AVFilter_VideoScale_Init(nullptr))
    BAD(AVFILTER_ERROR_VIDEO_NOT_FOUND, AVFilter_VideoScale_Set(0, 0, 32, 16, 0, 16, 16))
    BAD(AVFILTER_ERROR_VIDEO_PARSE_GRAPH, AVFilter_VideoScale_Set(hUnset, -1, 32, 16, 0, 16, 16))
    BAD(AVFILTER_ERROR_VIDEO_NOT_FOUND, scaler.Take(0, {}, nullptr, nullptr))
    BAD(AVFILTER_ERROR_VIDEO_SCALE, scaler.Take(hUnset, {}, out, &n))
    EXPECT_OK(AVFilter_VideoScale_Destory(hUnset));
}

} // namespace
