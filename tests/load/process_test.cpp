// What happens around calls that run on other threads: the process exits, or forks.

#include "support/jobs.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace
{

constexpr jobs::Size kSmall{64, 48, 480};

// Made before the exit, and released after the library's own end.
jobs::Job* g_pLate = nullptr;

void OneOfEach(jobs::Size size = kSmall)
{
    for (const jobs::Kind& kind : jobs::kKinds) {
        jobs::Job job(kind, size, 1);
        for (int i = 0; i < 5; ++i) {
            job.Convert();
        }
    }
}

void AtTheVeryEnd()
{
    if (g_pLate != nullptr) {
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        g_pLate->Convert();
        delete g_pLate;
        OneOfEach();
    }
}
// Earlier than any library's constructors, so that it runs after all destructors.
[[gnu::section(".preinit_array"), gnu::used]] void (*g_pRegister)() = [] { std::atexit(AtTheVeryEnd); };

// Threads that work on all jobs, handles coming and going, until the process is gone.
void KeepBusy()
{
    static std::atomic<int> nStarted = 0;
    for (std::size_t i = 0; i < jobs::kKinds.size(); ++i) {
        std::thread([] {
            for (;; ++nStarted) {
                OneOfEach({640, 360, 24000});
            }
        }).detach();
    }
    while (nStarted < 5) {
        std::this_thread::yield();
    }
}

// In the child: works, and ends. In the parent: whether the child came so far.
bool WorksIn(pid_t pid)
{
    if (pid == 0) {
        alarm(20); // if it hangs
        OneOfEach();
        _exit(0);
    }
    int nStatus = -1;
    return waitpid(pid, &nStatus, 0) == pid && nStatus == 0;
}

#ifdef __SANITIZE_ADDRESS__
// AddressSanitizer leaves its allocator's locks taken in the child (g++ 12): without the library, too, 4 of 100
// children that were forked beside threads that allocate hung.
constexpr int kForks = 0;
#else
constexpr int kForks = 3;
#endif

TEST(Process, ForksAndExitsWhileCallsRunAndServesTheLast)
{
    for (int i = 0; i < 8; ++i) {
        ASSERT_EXIT(
            {
                alarm(30);
                g_pLate = new jobs::Job(jobs::kKinds[jobs::kScaler], kSmall, 1);
                KeepBusy();
                for (int nFork = 0; nFork < kForks; ++nFork) {
                    jobs::Demand(WorksIn(fork()), "fork");
                }
                std::exit(0);
            },
            testing::ExitedWithCode(0), "");
    }
}

// "ashowinfo" writes a message of every block that passes, "volumedetect" one at its end.
TEST(Process, ForksInsideItsOwnCalls)
{
    static bool bFork = false;
    static pid_t child = -1;
    av_log_set_callback([](void*, int, const char*, va_list) {
        if (std::exchange(bFork, false)) {
            child = fork();
            alarm(child == 0 ? 20 : 0); // if it hangs
        }
    });
    jobs::Kind mix = jobs::kKinds[jobs::kAudioMix];
    mix.szDescr = "[a][b]amix=inputs=2,ashowinfo,volumedetect[out]";
    for (const bool bInDestroy : {false, true}) {
        child = -1;
        {
            jobs::Job job(mix, kSmall, 1);
            bFork = !bInDestroy;
            job.Convert();
            bFork = bInDestroy;
        }
        EXPECT_TRUE(WorksIn(child)) << bInDestroy;
    }
    av_log_set_callback(av_log_default_callback);
}

} // namespace
