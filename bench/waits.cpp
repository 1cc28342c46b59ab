// How long the calls of a family wait for one another: creating, setting up and destroying beside
// threads that convert, and converting beside threads that create and destroy. And what two threads
// reach together that scale on handles of their own.

#include "jobs.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::duration<double, std::milli>;

constexpr load::Size kLarge{1280, 720, 1024};
constexpr load::Size kSmall{64, 48, 64};
constexpr auto kRun = std::chrono::milliseconds(1000);

struct Waits {
    std::vector<double> vec_Millis;

    void Print() const
    {
        std::vector<double> sorted = vec_Millis;
        std::sort(sorted.begin(), sorted.end());
        const auto at = [&](double share) {
            return sorted.empty()
                       ? 0.0
                       : sorted[static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1))];
        };
        std::printf("%9zu calls  median %8.3f  p99 %8.3f  longest %8.3f ms", sorted.size(), at(0.5),
                    at(0.99), at(1.0));
    }
};

// Runs nWorkers threads that convert on large handles of their own and nComers threads that make and
// destroy small ones, and gives the times of either.
struct Outcome {
    Waits conversions;
    Waits comings;
};

template <class Job>
Outcome RunBeside(int nWorkers, int nComers, load::Size work, load::Size come)
{
    std::vector<std::unique_ptr<Job>> jobs;
    jobs.reserve(static_cast<std::size_t>(nWorkers));
    for (int i = 0; i < nWorkers; ++i) {
        jobs.push_back(std::make_unique<Job>(work, static_cast<unsigned>(i)));
    }
    std::atomic<bool> bStop = false;
    std::vector<Waits> times(static_cast<std::size_t>(nWorkers + nComers));
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < times.size(); ++i) {
        Job* pJob = i < jobs.size() ? jobs[i].get() : nullptr;
        threads.emplace_back([&times, &bStop, pJob, i, come] {
            Waits waits;
            while (!bStop) {
                const Clock::time_point start = Clock::now();
                if (pJob != nullptr) {
                    pJob->Convert();
                } else {
                    Job(come, 1);
                }
                waits.vec_Millis.push_back(Millis(Clock::now() - start).count());
            }
            times[i] = std::move(waits);
        });
    }
    std::this_thread::sleep_for(kRun);
    bStop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    Outcome outcome;
    for (std::size_t i = 0; i < times.size(); ++i) {
        std::vector<double>& vec_To =
            i < jobs.size() ? outcome.conversions.vec_Millis : outcome.comings.vec_Millis;
        vec_To.insert(vec_To.end(), times[i].vec_Millis.begin(), times[i].vec_Millis.end());
    }
    return outcome;
}

template <class Job>
void PrintComings()
{
    for (const int nWorkers : {0, 2, 4, 16}) {
        const std::size_t nAlone =
            nWorkers == 0 ? 0 : RunBeside<Job>(nWorkers, 0, kLarge, kSmall).conversions.vec_Millis.size();
        const Outcome outcome = RunBeside<Job>(nWorkers, 1, kLarge, kSmall);
        std::printf("%-8s %2d converting ", Job::kName, nWorkers);
        outcome.comings.Print();
        if (nWorkers > 0) {
            const double seconds = std::chrono::duration<double>(kRun).count();
            std::printf("  %8.0f conversions/s (%.0f without)",
                        static_cast<double>(outcome.conversions.vec_Millis.size()) / seconds,
                        static_cast<double>(nAlone) / seconds);
        }
        std::printf("\n");
        std::fflush(stdout);
    }
}

template <class Job>
void PrintConversions()
{
    for (const int nComers : {0, 1, 4, 8}) {
        const Outcome outcome = RunBeside<Job>(2, nComers, kLarge, kLarge);
        std::printf("%-8s %2d coming and going ", Job::kName, nComers);
        outcome.conversions.Print();
        std::printf("  %8.0f handles/s\n", static_cast<double>(outcome.comings.vec_Millis.size()) /
                                               std::chrono::duration<double>(kRun).count());
        std::fflush(stdout);
    }
}

long long ThreadNanos()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

struct Round {
    double perSecond;   // conversions of all threads
    double ofProcessor; // the smallest share of its time that a thread was running
};

// All threads convert for a few milliseconds. A round in which they did not start together counts as
// one without a processor.
Round Scale(int nThreads, load::Size size)
{
    std::vector<std::unique_ptr<load::ScaleJob>> jobs;
    jobs.reserve(static_cast<std::size_t>(nThreads));
    for (int i = 0; i < nThreads; ++i) {
        jobs.push_back(std::make_unique<load::ScaleJob>(size, static_cast<unsigned>(i)));
    }
    std::atomic<int> nReady = 0;
    std::vector<Round> rounds(jobs.size());
    std::vector<Clock::time_point> starts(jobs.size());
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        threads.emplace_back([&, i] {
            ++nReady;
            while (nReady < nThreads) {
            }
            const Clock::time_point start = Clock::now();
            starts[i] = start;
            const long long nBefore = ThreadNanos();
            Clock::duration time{};
            long n = 0;
            while ((time = Clock::now() - start) < std::chrono::milliseconds(4)) {
                jobs[i]->Convert();
                ++n;
            }
            const double seconds = std::chrono::duration<double>(time).count();
            rounds[i] = {static_cast<double>(n) / seconds,
                         static_cast<double>(ThreadNanos() - nBefore) / 1e9 / seconds};
        });
    }
    Round all{0, 1};
    for (std::size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        all.perSecond += rounds[i].perSecond;
        all.ofProcessor = std::min(all.ofProcessor, rounds[i].ofProcessor);
    }
    const auto [first, last] = std::minmax_element(starts.begin(), starts.end());
    if (*last - *first > std::chrono::microseconds(100)) {
        all.ofProcessor = 0;
    }
    return all;
}

// One and two threads by turns, in many short rounds. Only those count in which every thread had a
// processor to itself nearly all the time; the others measure what else the machine was doing.
void PrintTwoThreads(load::Size size)
{
    constexpr double kUndisturbed = 0.98;
    std::vector<double> rates[2];
    for (int i = 0; i < 200; ++i) {
        for (int nThreads = 1; nThreads <= 2; ++nThreads) {
            const Round round = Scale(nThreads, size);
            if (round.ofProcessor >= kUndisturbed) {
                rates[nThreads - 1].push_back(round.perSecond);
            }
        }
    }
    double middle[2] = {};
    for (int i = 0; i < 2; ++i) {
        std::sort(rates[i].begin(), rates[i].end());
        middle[i] = rates[i].empty() ? 0.0 : rates[i][rates[i].size() / 2];
        std::printf("scaling %dx%d with %d threads: %9.0f/s, median of %zu undisturbed rounds of 200\n",
                    size.nWidth, size.nHeight, i + 1, middle[i], rates[i].size());
    }
    if (middle[0] > 0 && middle[1] > 0) {
        std::printf("scaling %dx%d ratio %.2f\n", size.nWidth, size.nHeight, middle[1] / middle[0]);
    }
}

} // namespace

int main()
{
    std::printf("Making and destroying a handle (with its build or set-up) beside converting threads:\n");
    PrintComings<load::AudioMixJob>();
    PrintComings<load::VideoFilterJob>();
    PrintComings<load::ScaleJob>();
    std::printf("\nTwo converting threads beside threads that make and destroy handles:\n");
    PrintConversions<load::AudioMixJob>();
    PrintConversions<load::VideoFilterJob>();
    PrintConversions<load::ScaleJob>();
    std::printf("\nThreads on handles of their own:\n");
    PrintTwoThreads({640, 360, 0});
    PrintTwoThreads({16, 16, 0});
}
