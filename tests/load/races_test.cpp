// All jobs at once on many threads, handles coming and going, failing calls among them. Every thread checks what
// comes out of its own handles against what came out of the same job alone. Meant for ThreadSanitizer as much as
// for the content.
//
// With SOAK_SECONDS in the environment it goes on for so long, and the memory must not grow after a sixth of it.

#include "support/jobs.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <random>
#include <thread>
#include <vector>

namespace
{

using jobs::kKinds;
using Clock = std::chrono::steady_clock;
using Outputs = std::vector<test::Bytes>;

constexpr std::array<jobs::Size, 3> kSizes{{{96, 64, 480}, {16, 16, 64}, {322, 182, 1024}}};
constexpr unsigned kThreads = 8;
constexpr int kMostCalls = 12;

Outputs OutputsOf(std::size_t nKind, jobs::Size size, unsigned nSeed, int nCalls)
{
    jobs::Job job(kKinds.at(nKind), size, nSeed);
    Outputs outputs;
    while (nCalls-- > 0) {
        job.Convert();
        outputs.push_back(job.Output());
    }
    return outputs;
}

// Calls that fail. Returns how many did not.
int Fail()
{
    test::Bytes bytes(1024);
    const jobs::Block block{bytes.data(), {16, 16, 64}, true};
    jobs::Handle h = 0;
    int nWrong = kKinds[jobs::kVideoFilter].Create(&h, block.size, "[in]hflip[nowhere]") ? 1 : 0;
    for (const jobs::Kind& kind : kKinds) {
        int nLen = 1024;
        nWrong += kind.Take(1, block, bytes.data(), &nLen) ? 1 : 0;
        nWrong += kind.Send != nullptr && kind.Send(1, 0, block) ? 1 : 0;
    }
    // Whichever thread failed last: no other base, no other digit.
    return nWrong + ((AVFilter_GetLastError(nullptr) & ~0x1007ULL) == 0x80F0000 ? 0 : 1);
}

TEST(Races, EveryThreadGetsItsOwnResults)
{
    av_log_set_level(AV_LOG_QUIET);
    const char* const szSeconds = std::getenv("SOAK_SECONDS");
    const std::chrono::duration<double> duration(szSeconds == nullptr ? 0 : std::atof(szSeconds));
    const auto onAllThreads = [](auto work) {
        std::vector<std::thread> threads;
        for (unsigned t = 0; t < kThreads; ++t) {
            threads.emplace_back(work, t);
        }
        return threads;
    };
    const auto join = [](std::vector<std::thread> threads) {
        std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
    };
    // Before anything else, so that FFmpeg's first-time initialisation runs in several threads at once.
    std::array<std::array<Outputs, kKinds.size()>, kThreads> early;
    join(onAllThreads([&](unsigned t) {
        for (std::size_t k = 0; k < kKinds.size(); ++k) {
            early[t][k] = OutputsOf(k, kSizes[0], t, kMostCalls);
        }
    }));

    std::array<std::array<std::array<Outputs, kSizes.size()>, kKinds.size()>, kThreads> alone;
    for (unsigned t = 0; t < kThreads; ++t) {
        for (std::size_t k = 0; k < kKinds.size(); ++k) {
            for (std::size_t s = 0; s < kSizes.size(); ++s) {
                alone[t][k][s] = OutputsOf(k, kSizes[s], t, kMostCalls);
            }
            EXPECT_EQ(early[t][k], alone[t][k][0]) << kKinds[k].szName << ", thread " << t;
        }
    }
    EXPECT_NE(alone[0], alone[1]);

    const auto start = Clock::now();
    std::atomic<int> nWrong = 0;
    std::vector<std::thread> threads = onAllThreads([&](unsigned t) {
        std::minstd_rand random(t + 1);
        for (int nRound = 0; nRound < 60 || Clock::now() - start < duration; ++nRound) {
            const std::size_t k = random() % kKinds.size(), s = random() % kSizes.size();
            const Outputs outputs = OutputsOf(k, kSizes[s], t, 1 + static_cast<int>(random() % kMostCalls));
            nWrong += std::equal(outputs.begin(), outputs.end(), alone[t][k][s].begin()) ? 0 : 1;
            nWrong += Fail();
        }
    });
    // The highest of each sixth: the threads' own buffers come and go.
    std::array<std::size_t, 6> most{};
    for (std::size_t i = 0; duration.count() > 0 && i < most.size(); ++i) {
        while (Clock::now() - start < duration * (static_cast<double>(i) + 1) / 6) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            most[i] = std::max(most[i], test::ResidentBytes());
        }
        std::printf("%zu/6 of %g s: %d wrong, at most %zu KiB resident\n", i + 1, duration.count(),
                    nWrong.load(), most[i] / 1024);
        EXPECT_LE(most[i], most[0] + most[0] / 50) << "the memory grows";
    }
    join(std::move(threads));
    EXPECT_EQ(nWrong, 0);
}

} // namespace
