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
using test::g_In;
using test::Handle;
using test::Kind;
using test::kKinds;

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
            bGood = bGood && kind.pCreate(&hHandle, 64) && kind.pWork(hHandle);
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
                EXPECT_OK(kind.pWork(hHandle));
                EXPECT_OK(kind.pDestroy(hHandle));
            }
            ExpectFailure(kind.pWork(hHandle), kind.nNotFound);
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
        EXPECT_OK(kKinds[i].pWork(hHandles[i]));
    }
    EXPECT_EQ(countThreads(), nBefore);
    for (std::size_t i = 0; i < std::size(kKinds); ++i) {
        EXPECT_OK(kKinds[i].pDestroy(hHandles[i]));
    }
}

#define BAD(code, call)                                                                                    \
    {                                                                                                      \
        SCOPED_TRACE(#call);                                                                               \
        ExpectFailure(call, code);                                                                         \
        EXPECT_TRUE(h == 42 && n == 77);                                                                   \
    }

// With handle 0 and a null pointer in one call, the code tells which of the two is looked at first.
TEST(BadCalls, FailWithTheirCodeAndTouchNothing)
{
    Handle hLive[std::size(kKinds)] = {};
    for (std::size_t i = 0; i < std::size(kKinds); ++i) {
        EXPECT_OK(kKinds[i].pCreate(&hLive[i], 64));
    }
    const auto [hFilter, hMix, hVideo, hVideoMix, hScaler] = hLive;
    Handle hUnset = 0;
    EXPECT_OK(AVFilter_VideoScale_Init(&hUnset));
    Handle h = 42;
    int n = 77;
    unsigned char* const p = g_In;
    unsigned char out[8192] = {};
    const char* const pSrc = reinterpret_cast<const char*>(g_In);

    constexpr Handle kBad = AVFILTER_ERROR_AUDIO_INVALID_PARAM;
    constexpr Handle kUnknown = AVFILTER_ERROR_AUDIO_NOT_FOUND;
    AVFILTER_AUDIO_INFO st_Audio = test::AudioInfo(test::kS16, 48000, 480, 2, "a");
    const AVFILTER_AUDIO_INFO st_Other = test::AudioInfo(test::kS16, 48000, 480, 2, "b");
    test::AudioInfos audio({st_Audio, st_Other});
    test::AudioInfos audioNull({st_Audio, st_Other});
    audioNull.Pointers()[1] = nullptr;
    test::AudioInfos audioLong({st_Audio});
    std::memset(audioLong.Pointers()[0]->szName, 'a', sizeof(st_Audio.szName));
    AVFILTER_AUDIO_INFO** ppNoAudio = nullptr;
    const char* const szA = "[a]anull[out];[b]anullsink";
    BAD(kBad, AVFilter_Audio_Init(nullptr, "anull", &st_Audio))
    BAD(kBad, AVFilter_Audio_Init(&h, nullptr, &st_Audio))
    BAD(kBad, AVFilter_Audio_Init(&h, "anull", nullptr))
    BAD(kBad, AVFilter_Audio_Cvt(0, nullptr, 4, out, &n))
    BAD(kBad, AVFilter_Audio_Cvt(0, p, 4, nullptr, &n))
    BAD(kBad, AVFilter_Audio_Cvt(0, p, 4, out, nullptr))
    BAD(kUnknown, AVFilter_Audio_Cvt(0, p, 4, out, &n))
    BAD(kUnknown, AVFilter_Audio_Cvt(hMix, p, 4, out, &n))
    BAD(kBad, AVFilter_Audio_MIXInit(nullptr, audio.Get(), 2, "out", szA))
    BAD(kBad, AVFilter_Audio_MIXInit(&h, nullptr, 2, "out", szA))
    BAD(kBad, AVFilter_Audio_MIXInit(&h, &ppNoAudio, 2, "out", szA))
    BAD(kBad, AVFilter_Audio_MIXInit(&h, audioNull.Get(), 2, "out", szA))
    BAD(kBad, AVFilter_Audio_MIXInit(&h, audioLong.Get(), 1, "out", szA))
    BAD(kBad, AVFilter_Audio_MIXInit(&h, audio.Get(), 0, "out", szA))
    BAD(kBad, AVFilter_Audio_MIXInit(&h, audio.Get(), -1, "out", szA))
    BAD(kBad, AVFilter_Audio_MIXInit(&h, audio.Get(), 2, "out", nullptr))
    BAD(kBad, AVFilter_Audio_MIXSend(0, 3, nullptr, 4))
    BAD(kUnknown, AVFilter_Audio_MIXSend(0, 3, p, 4))
    BAD(AVFILTER_ERROR_AUDIO_SEND_FRAME, AVFilter_Audio_MIXSend(hFilter, 0, p, 4))
    ExpectFailure(AVFilter_Audio_MIXSend(hFilter, 1, p, 4), kUnknown, false);
    ExpectFailure(AVFilter_Audio_MIXSend(hMix, 0, p, 4), kUnknown, false);
    BAD(kBad, AVFilter_Audio_MIXRecv(0, nullptr, &n))
    BAD(kBad, AVFilter_Audio_MIXRecv(0, out, nullptr))
    BAD(kUnknown, AVFilter_Audio_MIXRecv(0, out, &n))
    BAD(AVFILTER_ERROR_AUDIO_RECEIVE_FRAME, AVFilter_Audio_MIXRecv(hMix, out, &n))

    constexpr Handle kBadV = AVFILTER_ERROR_VIDEO_INVALID_PARAM;
    constexpr Handle kUnknownV = AVFILTER_ERROR_VIDEO_NOT_FOUND;
    AVFILTER_VIDEO_INFO st_Video = test::VideoInfo(32, 16, 25, test::kYuv420p, "v");
    const AVFILTER_VIDEO_INFO st_Wall = test::VideoInfo(32, 16, 25, test::kYuv420p, "w");
    test::VideoInfos video({st_Video, st_Wall});
    test::VideoInfos videoNull({st_Video, st_Wall});
    videoNull.Pointers()[1] = nullptr;
    test::VideoInfos videoLong({st_Video});
    std::memset(videoLong.Pointers()[0]->szName, 'v', sizeof(st_Video.szName));
    AVFILTER_VIDEO_INFO** ppNoVideo = nullptr;
    const char* const szV = "[v]null[out];[w]nullsink";
    BAD(kBadV, AVFilter_Video_Init(nullptr, "null", &st_Video))
    BAD(kBadV, AVFilter_Video_Init(&h, nullptr, &st_Video))
    BAD(kBadV, AVFilter_Video_Init(&h, "null", nullptr))
    BAD(kBadV, AVFilter_Video_Cvt(0, nullptr, p, p, 1, 1, 1, out, &n))
    BAD(kBadV, AVFilter_Video_Cvt(0, p, p, p, 1, 1, 1, nullptr, &n))
    BAD(kBadV, AVFilter_Video_Cvt(0, p, p, p, 1, 1, 1, out, nullptr))
    BAD(kUnknownV, AVFilter_Video_Cvt(0, p, p, p, 1, 1, 1, out, &n))
    BAD(kUnknownV, AVFilter_Video_Cvt(hVideoMix, p, p, p, 1, 1, 1, out, &n))
    BAD(kBadV, AVFilter_Video_MIXInit(nullptr, video.Get(), 2, "out", szV))
    BAD(kBadV, AVFilter_Video_MIXInit(&h, nullptr, 2, "out", szV))
    BAD(kBadV, AVFilter_Video_MIXInit(&h, &ppNoVideo, 2, "out", szV))
    BAD(kBadV, AVFilter_Video_MIXInit(&h, videoNull.Get(), 2, "out", szV))
    BAD(kBadV, AVFilter_Video_MIXInit(&h, videoLong.Get(), 1, "out", szV))
    BAD(kBadV, AVFilter_Video_MIXInit(&h, video.Get(), 0, "out", szV))
    BAD(kBadV, AVFilter_Video_MIXInit(&h, video.Get(), -1, "out", szV))
    BAD(kBadV, AVFilter_Video_MIXInit(&h, video.Get(), 2, "out", nullptr))
    BAD(kBadV, AVFilter_Video_MIXSend(0, 3, nullptr, p, p, 1, 1, 1))
    BAD(kUnknownV, AVFilter_Video_MIXSend(0, 3, p, p, p, 1, 1, 1))
    BAD(kUnknownV, AVFilter_Video_MIXSend(hVideoMix, 0, p, p, p, 1, 1, 1))
    BAD(kUnknownV, AVFilter_Video_MIXSend(hVideo, 0, p, p, p, 1, 1, 1))
    BAD(kUnknownV, AVFilter_Video_MIXRecv(0, nullptr, nullptr))
    BAD(kUnknownV, AVFilter_Video_MIXRecv(hVideo, out, &n))
    BAD(AVFILTER_ERROR_VIDEO_RECEIVE_FRAME, AVFilter_Video_MIXRecv(hVideoMix, nullptr, &n))

    BAD(kBadV, AVFilter_VideoScale_Init(nullptr))
    BAD(kUnknownV, AVFilter_VideoScale_Set(0, 0, 32, 16, 0, 16, 16))
    BAD(AVFILTER_ERROR_VIDEO_PARSE_GRAPH, AVFilter_VideoScale_Set(hUnset, -1, 32, 16, 0, 16, 16))
    BAD(kUnknownV, AVFilter_VideoScale_Fmt(0, nullptr, nullptr, nullptr))
    BAD(AVFILTER_ERROR_VIDEO_SCALE, AVFilter_VideoScale_Fmt(hUnset, pSrc, out, &n))
    BAD(kBadV, AVFilter_VideoScale_Fmt(hScaler, nullptr, out, &n))
    BAD(kBadV, AVFilter_VideoScale_Fmt(hScaler, pSrc, out, nullptr))

    EXPECT_EQ(std::count(std::begin(out), std::end(out), 0), 8192);
    EXPECT_OK(AVFilter_VideoScale_Destory(hUnset));
    for (std::size_t i = 0; i < std::size(kKinds); ++i) {
        EXPECT_OK(kKinds[i].pWork(hLive[i]));
        EXPECT_OK(kKinds[i].pDestroy(hLive[i]));
    }
}

} // namespace
