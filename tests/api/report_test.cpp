// What all families share: the report, the handles, and bad calls to every function.

#include "kinds.h"

#include <cerrno>
#include <filesystem>
#include <iterator>

namespace
{

using test::Create;
using test::ExpectFailure;
using test::Handle;
using test::Kind;
using test::kKinds;
using test::NotFound;
using test::Send;
using test::Take;
using test::Work;

bool HasError() noexcept
{
    return AVFilter_GetLastError(nullptr) != 0 || AVFilter_IsErrorOccur;
}
const bool g_bErrorAtStart = HasError();

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
            EXPECT_OK(Create(kind, &hHandle));
            for (const Handle hAny : {0ULL, 77ULL, ~0ULL, hHandle}) {
                EXPECT_OK(destroyer.Destroy(hAny));
            }
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
        test::ExpectFlatMemory([&] {
            Handle hHandle = 0;
            ASSERT_TRUE(Create(kind, &hHandle) && Work(kind, hHandle));
            ASSERT_TRUE(kind.Send == nullptr || Send(kind, hHandle, 0, 101)); // something is left in it
            ASSERT_TRUE(kind.cFamily != 's' || AVFilter_VideoScale_Set(hHandle, 0, 64, 16, 0, 50, 16));
            ASSERT_TRUE(++nCycle > 1 || countThreads() == nBefore);
            ASSERT_TRUE(kind.Destroy(hHandle));
        });
    }
    test::ExpectFlatMemory([] {
        Handle hHandle = 0;
        ASSERT_FALSE(kKinds[jobs::kVideoFilter].Create(&hHandle, test::kSize, "[in]hflip[other]"));
    });
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
    SCOPED_TRACE(null);
    const Kind& filter = test::KindOf<Info>(false);
    const Kind& mix = test::KindOf<Info>(true);
    const Handle kBad = filter.nBase + 1;
    const Handle kUnknown = NotFound(filter);
    const test::Graph<Info> aFilter(null, st_Info);
    const test::Graph<Info> aMix(std::string("[in]").append(null).append("[out]"), {{st_Info}});
    const Handle hFilter = aFilter.Get();
    const Handle hMix = aMix.Get();
    unsigned char* const out = test::g_Out;
    const jobs::Block in{out, {32, 16, 32}, false};
    const jobs::Block none{nullptr, in.size, true};
    Handle h = 42;
    int n = 77;

    constexpr auto kInit = jobs::kInit<Info>;
    constexpr auto kMixInit = jobs::kMixInit<Info>;
    BAD(kBad, kInit(nullptr, null.c_str(), &st_Info))
    BAD(kBad, kInit(&h, nullptr, &st_Info))
    BAD(kBad, kInit(&h, null.c_str(), nullptr))
    BAD(kBad, filter.Take(0, none, out, &n))
    BAD(kBad, filter.Take(0, in, nullptr, &n))
    BAD(kBad, filter.Take(0, in, out, nullptr))
    BAD(kUnknown, filter.Take(0, in, out, &n))
    BAD(kUnknown, filter.Take(hMix, in, out, &n))

    test::Inputs<Info> good({st_Info, test::Named(st_Info, "b")});
    test::Inputs<Info> withNull({st_Info, st_Info});
    (*withNull.Get())[1] = nullptr;
    test::Inputs<Info> endless({st_Info});
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
void ExpectRefused(const char* szDescr, std::vector<Info> vec_Infos, Handle nCode,
                   const char* szOut = "out")
{
    SCOPED_TRACE(szDescr);
    const test::KeepsMemoryByContract keeps(nCode < AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    Handle h = 42;
    test::Inputs<Info> inputs(vec_Infos);
    ExpectFailure(jobs::kMixInit<Info>(&h, inputs.Get(), inputs.Count(), szOut, szDescr), nCode);
    if (std::string(vec_Infos[0].szName) == "in") {
        ExpectFailure(jobs::kInit<Info>(&h, szDescr, vec_Infos.data()), nCode);
    }
    EXPECT_EQ(h, 42U);
}

TEST(BadCalls, GraphsThatFFmpegRefuses)
{
    const auto audio = [](int nFormat, int nRate, int nChannels, const char* szDescr, Handle nCode) {
        ExpectRefused(szDescr, std::vector{test::AudioInfo(nFormat, nRate, 480, nChannels)},
                      AVFILTER_ERROR_AUDIO_INVALID_PARAM - 1 + nCode);
    };
    audio(-1, 48000, 2, "anull", 3);
    audio(999, 48000, 2, "anull", 3);
    audio(test::kS16, -1, 2, "anull", 3);
    audio(test::kS16, 48000, 0, "anull", 3);
    audio(test::kS16, 48000, -2, "anull", 3);
    audio(test::kS16, 48000, 2, "nosuchfilter", 4);
    audio(test::kS16, 48000, 2, "[in]hflip[out]", 4);
    audio(test::kS16, 48000, 2, "[in]anullsink", 5);
    audio(test::kS16, 48000, 2, "[in]asplit[out][more]", 5);

    using test::VideoInfo;
    const AVFILTER_VIDEO_INFO st_B = test::Named(VideoInfo(16, 16), "b");
    for (const auto& st_Bad :
         {VideoInfo(0, 16), VideoInfo(16, 16, 0), VideoInfo(16, 16, 25, -1), VideoInfo(16, 16, 25, 9999)}) {
        ExpectRefused("[in]null[out]", std::vector{st_Bad}, AVFILTER_ERROR_VIDEO_CREATE_SOURCE);
    }
    const auto video = [&](const char* szDescr, const std::vector<AVFILTER_VIDEO_INFO>& vec_Infos,
                           Handle nCode,
                           const char* szOut = "out") { ExpectRefused(szDescr, vec_Infos, nCode, szOut); };
    video("[in]nosuchfilter[out]", {VideoInfo(16, 16)}, AVFILTER_ERROR_VIDEO_PARSE_GRAPH);
    video("[in]aresample[out]", {VideoInfo(16, 16)}, AVFILTER_ERROR_VIDEO_PARSE_GRAPH);
    video("[in]null[other]", {VideoInfo(16, 16)}, test::kUnlinked);
    video("[b]null[out]", {st_B}, test::kUnlinked, nullptr);
    video("[b]null[out]", {st_B}, test::kUnlinked, "other");
    video("[b]null[out]", {st_B, VideoInfo(16, 16)}, test::kUnlinked);
    video("[b][in]hstack[out]", {st_B, VideoInfo(16, 8)}, AVFILTER_ERROR_VIDEO_CONFIG_GRAPH);
    video("[b][in]hstack[out]", {st_B, VideoInfo(0, 8)}, AVFILTER_ERROR_VIDEO_CREATE_SOURCE);
}

TEST(BadCalls, FailWithTheirCodeAndTouchNothing)
{
    ExpectBadCalls("anull", test::AudioInfo(test::kS16, 48000, 32, 2));
    ExpectBadCalls("null", test::VideoInfo(32, 16));

    const Kind& scaler = kKinds[jobs::kScaler];
    unsigned char* const out = test::g_Out;
    Handle hUnset = 0;
    Handle h = 42;
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
