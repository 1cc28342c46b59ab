// What all families share: the report, the handles, and bad calls to every function.

#include "kinds.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <set>
#include <thread>

namespace
{

using test::ExpectFailure;
using test::Handle;
using test::Kind;
using test::kKinds;
using test::Take;

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
            bGood = bGood && kind.pCreate(&hHandle, 64) && Work(kind, hHandle);
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
            EXPECT_OK(kind.pCreate(&hHandle, 64));
            for (const Handle hAny : {0ULL, 77ULL, ~0ULL, hHandle}) {
                EXPECT_OK(destroyer.pDestroy(hAny));
            }
            if (destroyer.cFamily != kind.cFamily) {
                EXPECT_TRUE(Work(kind, hHandle));
                EXPECT_OK(kind.pDestroy(hHandle));
            }
            ExpectFailure(Take(kind, hHandle, 100), kind.nNotFound);
            if (kind.pSend != nullptr) {
                ExpectFailure(kind.pSend(hHandle, 0, 100), kind.nNotFound);
            }
            EXPECT_OK(kind.pDestroy(hHandle));
        }
    }
}

TEST(Handles, AreUniqueAndWithinBoundsFromSeveralThreads)
{
    std::vector<std::vector<Handle>> hHandles(4, std::vector<Handle>(100));
    std::vector<std::thread> vec_Threads;
    vec_Threads.reserve(hHandles.size());
    for (std::vector<Handle>& hMine : hHandles) {
        vec_Threads.emplace_back([&hMine] {
            for (std::size_t i = 0; i < hMine.size(); ++i) {
                EXPECT_TRUE(kKinds[i % std::size(kKinds)].pCreate(&hMine[i], 64));
            }
        });
    }
    std::set<Handle> hAll;
    for (std::size_t i = 0; i < hHandles.size(); ++i) {
        vec_Threads[i].join();
        hAll.insert(hHandles[i].begin(), hHandles[i].end());
    }
    EXPECT_EQ(hAll.size(), 400U);
    EXPECT_GE(*hAll.begin(), 1000000001ULL);
    EXPECT_LE(*hAll.rbegin(), 9000000002ULL);
    for (const Handle hHandle : hAll) {
        std::for_each(std::begin(kKinds), std::end(kKinds), [&](auto& kind) { kind.pDestroy(hHandle); });
    }
}

TEST(Process, GetsNoThreadFromLiveGraphs)
{
    const auto countThreads = [] {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return std::distance(begin(tasks), end(tasks));
    };
    const auto nBefore = countThreads();
    Handle hHandles[std::size(kKinds)] = {};
    for (std::size_t i = 0; i < std::size(kKinds); ++i) {
        EXPECT_OK(kKinds[i].pCreate(&hHandles[i], 64));
        EXPECT_TRUE(Work(kKinds[i], hHandles[i]));
    }
    EXPECT_EQ(countThreads(), nBefore);
    for (std::size_t i = 0; i < std::size(kKinds); ++i) {
        EXPECT_OK(kKinds[i].pDestroy(hHandles[i]));
    }
}

TEST(Handles, TenThousandCyclesKeepNoMemory)
{
    AVFILTER_VIDEO_INFO st_Info = test::VideoInfo(64, 16);
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.szName);
        test::ExpectFlatMemory([&] {
            Handle hHandle = 0;
            ASSERT_TRUE(kind.pCreate(&hHandle, 64) && Work(kind, hHandle));
            ASSERT_TRUE(kind.pSend == nullptr || kind.pSend(hHandle, 0, 101)); // something is left in it
            ASSERT_TRUE(kind.pDestroy(hHandle));
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
template <class F>
void ExpectBadCalls(const std::string& null)
{
    SCOPED_TRACE(null);
    constexpr bool kAudio = F::kBase == test::Audio::kBase;
    constexpr Handle kBad = F::kBase + 1;
    constexpr Handle kUnknown = F::kNotFound;
    using Infos = test::InfoArray<typename F::Info>;
    typename F::Info st_Info = F::Stream("a");
    const test::Graph<F> filter(null, st_Info);
    const test::Graph<F> mix("[a]" + null + "[out]", {{st_Info}});
    const Handle hFilter = filter.Get();
    const Handle hMix = mix.Get();
    const char* const szNull = null.c_str();
    test::Bytes in(4096);
    test::Bytes outBytes(4096);
    unsigned char* const p = in.data();
    unsigned char* const out = outBytes.data();
    Handle h = 42;
    int n = 77;

    BAD(kBad, F::Init(nullptr, szNull, &st_Info))
    BAD(kBad, F::Init(&h, nullptr, &st_Info))
    BAD(kBad, F::Init(&h, szNull, nullptr))
    BAD(kBad, F::Cvt(0, nullptr, out, &n))
    BAD(kBad, F::Cvt(0, p, nullptr, &n))
    BAD(kBad, F::Cvt(0, p, out, nullptr))
    BAD(kUnknown, F::Cvt(0, p, out, &n))
    BAD(kUnknown, F::Cvt(hMix, p, out, &n))

    Infos good({st_Info, F::Stream("b")});
    Infos withNull({st_Info, st_Info});
    withNull.Pointers()[1] = nullptr;
    Infos endless({st_Info});
    std::memset(endless.Pointers()[0]->szName, 'a', sizeof(st_Info.szName));
    typename F::Info** ppNone = nullptr;
    const std::string descr = "[a]" + null + "[out];[b]" + null + "sink";
    const char* const szDescr = descr.c_str();
    BAD(kBad, F::MixInit(nullptr, good.Get(), 2, "out", szDescr))
    BAD(kBad, F::MixInit(&h, nullptr, 2, "out", szDescr))
    BAD(kBad, F::MixInit(&h, &ppNone, 2, "out", szDescr))
    BAD(kBad, F::MixInit(&h, withNull.Get(), 2, "out", szDescr))
    BAD(kBad, F::MixInit(&h, endless.Get(), 1, "out", szDescr))
    BAD(kBad, F::MixInit(&h, good.Get(), 0, "out", szDescr))
    BAD(kBad, F::MixInit(&h, good.Get(), -1, "out", szDescr))
    BAD(kBad, F::MixInit(&h, good.Get(), 2, "out", nullptr))

    BAD(kBad, F::Send(0, 3, nullptr))
    BAD(kUnknown, F::Send(0, 3, p))
    BAD(kUnknown, F::MixRecv(0, out, &n))
    BAD(F::kReceive, F::MixRecv(hMix, out, &n))
    if (kAudio) { // whose mixing calls know the handles of filters
        BAD(AVFILTER_ERROR_AUDIO_SEND_FRAME, F::Send(hFilter, 0, p))
        ExpectFailure(F::Send(hFilter, 1, p), kUnknown, false);
        ExpectFailure(F::Send(hMix, 1, p), kUnknown, false);
        BAD(kBad, F::MixRecv(0, nullptr, &n))
        BAD(kBad, F::MixRecv(0, out, nullptr))
    } else {
        BAD(kUnknown, F::Send(hFilter, 0, p))
        BAD(kUnknown, F::Send(hMix, 1, p))
        BAD(kUnknown, F::MixRecv(0, nullptr, nullptr))
        BAD(kUnknown, F::MixRecv(hFilter, out, &n))
        BAD(F::kReceive, F::MixRecv(hMix, nullptr, &n))
    }
    EXPECT_EQ(outBytes, test::Bytes(4096));
    EXPECT_TRUE(F::Cvt(hFilter, p, out, &n) && F::Send(hMix, 0, p) && F::MixRecv(hMix, out, &n));
}

TEST(BadCalls, FailWithTheirCodeAndTouchNothing)
{
    ExpectBadCalls<test::Audio>("anull");
    ExpectBadCalls<test::Video>("null");

    constexpr Handle kBad = AVFILTER_ERROR_VIDEO_INVALID_PARAM;
    constexpr Handle kUnknown = AVFILTER_ERROR_VIDEO_NOT_FOUND;
    Handle hUnset = 0;
    Handle h = 42;
    int n = 77;
    unsigned char* const out = test::g_Out;
    EXPECT_OK(AVFilter_VideoScale_Init(&hUnset));
    BAD(kBad, AVFilter_VideoScale_Init(nullptr))
    BAD(kUnknown, AVFilter_VideoScale_Set(0, 0, 32, 16, 0, 16, 16))
    BAD(AVFILTER_ERROR_VIDEO_PARSE_GRAPH, AVFilter_VideoScale_Set(hUnset, -1, 32, 16, 0, 16, 16))
    BAD(kUnknown, AVFilter_VideoScale_Fmt(0, nullptr, nullptr, nullptr))
    BAD(AVFILTER_ERROR_VIDEO_SCALE, AVFilter_VideoScale_Fmt(hUnset, nullptr, out, &n))
    EXPECT_OK(AVFilter_VideoScale_Destory(hUnset));
}

} // namespace
