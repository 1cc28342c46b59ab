// All jobs at once on many threads, handles coming and going, failing calls among them. Every thread
// checks what comes out of its own handles against what came out of the same job alone. Meant for
// ThreadSanitizer as much as for the content.

#include "jobs.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <array>
#include <atomic>
#include <initializer_list>
#include <memory>
#include <thread>
#include <vector>

namespace
{

constexpr load::Size kSize{96, 64, 480};
constexpr unsigned kThreads = 8;
constexpr int kRounds = 12;
constexpr int kCalls = 6;

using load::kJobs;
using load::Outputs;

bool IsAnyOf(unsigned long long nCode, std::initializer_list<unsigned long long> codes)
{
    return std::find(codes.begin(), codes.end(), nCode) != codes.end();
}

// Calls that fail, on no handle and on those of other threads' making. Returns how many did not fail, or
// left a code that no call here reports.
int Fail()
{
    unsigned char byte = 0;
    int nLen = 0;
    unsigned long long hHandle = 0;
    AVFILTER_VIDEO_INFO st_Info{};
    st_Info.nWidth = 16;
    st_Info.nHeight = 16;
    st_Info.nTimeBase = 25;
    const std::array<bool, 8> bResults{
        AVFilter_Audio_Cvt(1, &byte, 1, &byte, &nLen),
        AVFilter_Audio_MIXSend(1, 0, &byte, 1),
        AVFilter_Audio_MIXRecv(1, nullptr, &nLen),
        AVFilter_Video_Cvt(1, &byte, nullptr, nullptr, 0, 0, 0, &byte, &nLen),
        AVFilter_Video_Init(&hHandle, "[in]hflip[nowhere]", &st_Info),
        AVFilter_Video_MIXRecv(1, &byte, &nLen),
        AVFilter_VideoScale_Set(1, 0, 16, 16, 0, 8, 8),
        AVFilter_VideoScale_Fmt(1, "", &byte, &nLen)};
    // Whichever thread failed last.
    const bool bKnown = IsAnyOf(AVFilter_GetLastError(nullptr),
                                {AVFILTER_ERROR_AUDIO_NOT_FOUND, AVFILTER_ERROR_AUDIO_INVALID_PARAM,
                                 AVFILTER_ERROR_VIDEO_NOT_FOUND, AVFILTER_ERROR_VIDEO_CONFIG_GRAPH});
    return static_cast<int>(std::count(bResults.begin(), bResults.end(), true)) + (bKnown ? 0 : 1);
}

TEST(Races, EveryThreadGetsItsOwnResults)
{
    av_log_set_level(AV_LOG_QUIET);
    // Before anything else, so that FFmpeg's first-time initialisation runs in several threads at once.
    std::array<std::array<Outputs, kJobs.size()>, kThreads> early;
    const auto onAllThreads = [](auto work) {
        std::vector<std::thread> threads;
        for (unsigned t = 0; t < kThreads; ++t) {
            threads.emplace_back(work, t);
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    };
    onAllThreads([&](unsigned t) {
        for (std::size_t k = 0; k < kJobs.size(); ++k) {
            early[t][k] = kJobs[k](kSize, t, kCalls);
        }
    });

    std::array<std::array<Outputs, kJobs.size()>, kThreads> alone;
    for (unsigned t = 0; t < kThreads; ++t) {
        for (std::size_t k = 0; k < kJobs.size(); ++k) {
            alone[t][k] = kJobs[k](kSize, t, kCalls);
            EXPECT_EQ(early[t][k], alone[t][k]) << "job " << k << ", thread " << t;
        }
    }
    EXPECT_NE(alone[0], alone[1]);

    std::atomic<int> nWrong = 0;
    onAllThreads([&](unsigned t) {
        for (int nRound = 0; nRound < kRounds; ++nRound) {
            // Each thread starts elsewhere, so that families meet themselves and one another.
            for (std::size_t k = 0; k < kJobs.size(); ++k) {
                const std::size_t nJob = (k + t) % kJobs.size();
                nWrong += kJobs[nJob](kSize, t, kCalls) == alone[t][nJob] ? 0 : 1;
                nWrong += Fail();
            }
        }
    });
    EXPECT_EQ(nWrong, 0);
}

} // namespace
