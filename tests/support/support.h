// What the tests share that run calls of the library under GoogleTest.
#pragma once

#include "buffers.h"

#include "Telvane_AVFilter.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define TEST_WITH_LEAK_CHECK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TEST_WITH_LEAK_CHECK 1
#endif
#endif
#ifdef TEST_WITH_LEAK_CHECK
#include <sanitizer/lsan_interface.h>
#endif

namespace test
{

// The tests provoke FFmpeg's complaints all the time.
inline bool BeQuiet() noexcept
{
    av_log_set_level(AV_LOG_QUIET);
    return true;
}
inline const bool kQuiet = BeQuiet();

// Stands for the code of a video description that leaves an end open: FFmpeg versions differ in whether
// the parser or the configuration finds that.
inline constexpr unsigned long long kUnlinked = 1;

// Expects that a call failed with this code and this flag.
inline void ExpectFailure(bool bResult, unsigned long long code, bool bFlag = true)
{
    EXPECT_FALSE(bResult);
    const unsigned long long nTold = AVFilter_GetLastError(nullptr);
    if (code == kUnlinked) {
        EXPECT_TRUE(nTold == AVFILTER_ERROR_VIDEO_PARSE_GRAPH ||
                    nTold == AVFILTER_ERROR_VIDEO_CONFIG_GRAPH);
    } else {
        EXPECT_EQ(nTold, code);
    }
    EXPECT_EQ(AVFilter_IsErrorOccur, bFlag);
}

// Expects success, with the flag down and the last failure's code still there.
#define EXPECT_OK(call)                                                                                    \
    do {                                                                                                   \
        const unsigned long long codeBefore_ = AVFilter_GetLastError(nullptr);                             \
        EXPECT_TRUE(call) << "code " << std::hex << AVFilter_GetLastError(nullptr);                        \
        EXPECT_FALSE(AVFilter_IsErrorOccur);                                                               \
        EXPECT_EQ(AVFilter_GetLastError(nullptr), codeBefore_);                                            \
    } while (false)

// While one of these lives, the leak check looks away: for calls that keep memory by contract.
class KeepsMemoryByContract
{
  public:
    explicit KeepsMemoryByContract(bool bKeeps = true) : m_bKeeps(bKeeps) { Look(false); }
    ~KeepsMemoryByContract() { Look(true); }
    KeepsMemoryByContract(const KeepsMemoryByContract&) = delete;
    KeepsMemoryByContract& operator=(const KeepsMemoryByContract&) = delete;

  private:
    void Look([[maybe_unused]] bool bAgain) const
    {
#ifdef TEST_WITH_LEAK_CHECK
        if (m_bKeeps) {
            bAgain ? __lsan_enable() : __lsan_disable();
        }
#endif
    }
    [[maybe_unused]] bool m_bKeeps;
};

// Runs a cycle 10,000 times; a leak of 64 bytes per cycle shows. Sanitizers, which keep freed memory,
// get a shorter run and find leaks by themselves.
template <class Cycle>
void ExpectFlatMemory(const Cycle& cycle)
{
#if defined(TEST_WITH_LEAK_CHECK) || defined(__SANITIZE_THREAD__)
    constexpr int kCycles = 200;
#else
    constexpr int kCycles = 11000;
#endif
    std::size_t nBefore = 0;
    for (int i = 0; i < kCycles; ++i) {
        nBefore = i == 1000 ? ResidentBytes() : nBefore;
        cycle();
    }
    EXPECT_TRUE(kCycles < 1000 || ResidentBytes() < nBefore + 524288) << ResidentBytes() - nBefore;
}

} // namespace test
