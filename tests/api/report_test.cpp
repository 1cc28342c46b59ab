// What all families share: the report, the handles, and bad calls to every function.

#include "kinds.h"

#include <algorithm>
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

TEST(Report, KeepsTheLastCodeAndTellsErrno)
{
    ExpectFailure(AVFilter_VideoScale_Init(nullptr), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    errno = ENOTTY;
    int nSysError = 0;
    EXPECT_EQ(AVFilter_GetLastError(&nSysError), AVFILTER_ERROR_VIDEO_INVALID_PARAM);
    EXPECT_EQ(nSysError, ENOTTY);
    EXPECT_TRUE(AVFilter_IsErrorOccur) << "asking clears nothing";
    EXPECT_OK(AVFilter_Audio_Destroy(1));
    EXPECT_EQ(AVFilter_dwErrorCode, AVFILTER_ERROR_VIDEO_INVALID_PARAM);
}

// In a process of its own: the report before the first call, and an exit with live handles.
TEST(ReportDeathTest, StartsWithoutErrorAndExitsWithLiveHandles)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto run = [] {
        const test::KeepsMemoryByContract keeps;
        bool bGood = AVFilter_GetLastError(nullptr) == 0 && !AVFilter_IsErrorOccur;
        for (const Kind& kind : kKinds) {
            Handle hHandle = 0;
            bGood = bGood && Create(kind, &hHandle) && Work(kind, hHandle);
        }
        return bGood ? 0 : 1;
    };
    EXPECT_EXIT(std::exit(run()), testing::ExitedWithCode(0), "");
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

TEST(Process, GetsNoThreadFromLiveGraphs)
{
    const auto countThreads = [] {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return std::distance(begin(tasks), end(tasks));
    };
    const auto nBefore = countThreads();
    Handle hHandles[kKinds.size()] = {};
    for (std::size_t i = 0; i < kKinds.size(); ++i) {
        EXPECT_OK(Create(kKinds[i], &hHandles[i]));
        EXPECT_TRUE(Work(kKinds[i], hHandles[i]));
    }
    EXPECT_EQ(countThreads(), nBefore);
    for (std::size_t i = 0; i < kKinds.size(); ++i) {
        EXPECT_OK(kKinds[i].Destroy(hHandles[i]));
    }
}

TEST(Handles, TenThousandCyclesKeepNoMemory)
{
    AVFILTER_VIDEO_INFO st_Info = test::VideoInfo(64, 16);
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.szName);
        test::ExpectFlatMemory([&] {
            Handle hHandle = 0;
            ASSERT_TRUE(Create(kind, &hHandle) && Work(kind, hHandle));
            ASSERT_TRUE(kind.Send == nullptr || Send(kind, hHandle, 0, 101)); // something is left in it
            ASSERT_TRUE(kind.cFamily != 's' || AVFilter_VideoScale_Set(hHandle, 0, 64, 16, 0, 50, 16));
            ASSERT_TRUE(kind.Destroy(hHandle));
        });
    }
    test::ExpectFlatMemory([&] {
        Handle hHandle = 0;
        ASSERT_FALSE(AVFilter_Video_Init(&hHandle, "[in]hflip[other]", &st_Info));
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

    using test::Init;
    BAD(kBad, Init(nullptr, null.c_str(), &st_Info))
    BAD(kBad, Init(&h, nullptr, &st_Info))
    BAD(kBad, Init(&h, null.c_str(), static_cast<Info*>(nullptr)))
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
    BAD(kBad, Init(nullptr, good.Get(), 2, "out", szDescr))
    BAD(kBad, Init(&h, static_cast<Info***>(nullptr), 2, "out", szDescr))
    BAD(kBad, Init(&h, &ppNone, 2, "out", szDescr))
    BAD(kBad, Init(&h, withNull.Get(), 2, "out", szDescr))
    BAD(kBad, Init(&h, endless.Get(), 1, "out", szDescr))
    BAD(kBad, Init(&h, good.Get(), 0, "out", szDescr))
    BAD(kBad, Init(&h, good.Get(), -1, "out", szDescr))
    BAD(kBad, Init(&h, good.Get(), 2, "out", nullptr))

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
