// All jobs at once on many threads, handles coming and going, failing calls among them. Every thread checks what
// comes out of its own handles against what came out before, and in the end against the same job alone. Meant for
// ThreadSanitizer as much as for the content.
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
#include <random>
#include <thread>
#include <vector>

namespace
{

using jobs::kKinds;
using Clock = std::chrono::steady_clock;
using Outputs = std::vector<test::Bytes>;

constexpr std::array<jobs::Size, 3> kSizes{{{96, 64, 480}, {16, 16, 64}, {322, 182, 1024}}};
constexpr std::size_t kJobs = kKinds.size() * kSizes.size();
constexpr std::size_t kMostCalls = 12;

Outputs OutputsOf(std::size_t nJob, unsigned nSeed, std::size_t nCalls)
{
    jobs::Job job(kKinds.at(nJob / kSizes.size()), kSizes.at(nJob % kSizes.size()), nSeed);
    Outputs outputs(nCalls);
    for (test::Bytes& output : outputs) {
        job.Convert();
        output = job.Output();
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
    const auto start = Clock::now();
    std::array<std::array<Outputs, kJobs>, 8> first;
    std::atomic<int> nWrong = 0;
    std::vector<std::jthread> threads;
    for (unsigned t = 0; t < first.size(); ++t) {
        threads.emplace_back([&, t] {
            // So that FFmpeg's first-time initialisation runs in several threads at once.
            for (std::size_t nJob = 0; nJob < kJobs; ++nJob) {
                first[t][nJob] = OutputsOf(nJob, t, kMostCalls);
            }
            std::minstd_rand random(t + 1);
            for (int nRound = 0; nRound < 60 || Clock::now() - start < duration; ++nRound) {
                const std::size_t nJob = random() % kJobs;
                const Outputs outputs = OutputsOf(nJob, t, 1 + random() % kMostCalls);
                nWrong += std::equal(outputs.begin(), outputs.end(), first[t][nJob].begin()) ? 0 : 1;
                nWrong += Fail();
            }
        });
    }
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
    threads.clear();
    EXPECT_EQ(nWrong, 0);
    for (std::size_t nJob = 0; nJob < kJobs; ++nJob) {
        for (unsigned t = 0; t < first.size(); ++t) {
            EXPECT_EQ(first[t][nJob], OutputsOf(nJob, t, kMostCalls))
                << kKinds[nJob / kSizes.size()].szName << ", thread " << t;
        }
    }
    EXPECT_NE(first[0], first[1]);
}

} // namespace
