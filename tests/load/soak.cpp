// soak [SECONDS]: eight threads over all five jobs, handles coming and going, every output compared with
// what the same job gave alone. Prints the resident memory at each sixth of the time; fails on a wrong output, or when
// memory grows in the last five sixths of the time.

#include "jobs.h"

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

constexpr unsigned kThreads = 8;
constexpr int kMostCalls = 40;
constexpr std::array<load::Size, 3> kSizes{{{16, 16, 64}, {96, 64, 480}, {322, 182, 1024}}};

double ResidentMiB()
{
    std::ifstream file("/proc/self/statm");
    double dPages = 0;
    file >> dPages >> dPages;
    return dPages * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

} // namespace

int main(int argc, char** argv)
{
    const int nSeconds = argc > 1 ? std::atoi(argv[1]) : 1800;
    if (nSeconds < 1) {
        std::fputs("usage: soak [SECONDS]\n", stderr);
        return 2;
    }
    av_log_set_level(AV_LOG_ERROR);
    // Expected by thread, job and size.
    std::array<std::array<std::array<load::Outputs, kSizes.size()>, load::kJobs.size()>, kThreads> alone;
    for (unsigned t = 0; t < kThreads; ++t) {
        for (std::size_t k = 0; k < load::kJobs.size(); ++k) {
            for (std::size_t s = 0; s < kSizes.size(); ++s) {
                alone[t][k][s] = load::kJobs[k](kSizes[s], t, kMostCalls);
            }
        }
    }

    std::atomic<bool> bStop = false;
    std::atomic<long long> nHandles = 0;
    std::atomic<long long> nOutputs = 0;
    std::atomic<long long> nWrong = 0;
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::minstd_rand random(t + 1);
            while (!bStop) {
                const std::size_t k = random() % load::kJobs.size();
                const std::size_t s = random() % kSizes.size();
                const int nCalls = 1 + static_cast<int>(random() % kMostCalls);
                const load::Outputs outputs = load::kJobs[k](kSizes[s], t, nCalls);
                const load::Outputs& expected = alone[t][k][s];
                ++nHandles;
                nOutputs += nCalls;
                nWrong += std::equal(outputs.begin(), outputs.end(), expected.begin()) ? 0 : 1;
            }
        });
    }

    // The highest of each sixth: the threads' own buffers come and go.
    std::array<double, 6> most{};
    const auto start = std::chrono::steady_clock::now();
    for (double& dMost : most) {
        const auto nSixth = static_cast<double>(&dMost - most.data() + 1);
        const auto until = start + std::chrono::duration<double>(nSixth * nSeconds / 6);
        while (std::chrono::steady_clock::now() < until) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            dMost = std::max(dMost, ResidentMiB());
        }
        std::printf("%6.0f s: %10lld handles, %12lld outputs, %lld wrong, at most %.1f MiB resident\n",
                    nSixth * nSeconds / 6, nHandles.load(), nOutputs.load(), nWrong.load(), dMost);
        std::fflush(stdout);
    }
    bStop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    const double dLater = *std::max_element(most.begin() + 1, most.end());
    const bool bFlat = dLater <= most[0] * 1.02;
    std::printf("%lld wrong; memory after the first sixth %s: %.1f, then %.1f MiB\n", nWrong.load(),
                bFlat ? "is flat" : "GROWS", most[0], dLater);
    return nWrong == 0 && bFlat ? 0 : 1;
}
