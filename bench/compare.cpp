#include "compare.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <numeric>
#include <random>
#include <utility>

namespace bench
{

namespace
{

struct Sample {
    double dWall;
    double dCpu;
};

double CpuNow()
{
    std::timespec st_Time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &st_Time);
    return static_cast<double>(st_Time.tv_sec) * 1e9 + static_cast<double>(st_Time.tv_nsec);
}

// Nanoseconds per job; a negative time if the path failed. One job goes before, untimed: the caches hold
// what the path before has left, and who works in one way only finds them filled by himself.
Sample Take(const Path& path, int n)
{
    if (!path.Run(1)) {
        return {-1, 0};
    }
    n = std::max(n, path.nAtLeast);
    const double dCpu = CpuNow();
    const auto start = std::chrono::steady_clock::now();
    const bool bOk = path.Run(n);
    const std::chrono::duration<double, std::nano> wall = std::chrono::steady_clock::now() - start;
    return bOk ? Sample{wall.count() / n, (CpuNow() - dCpu) / n} : Sample{-1, 0};
}

using Random = std::minstd_rand;

// The paths' indices in a new order.
std::vector<std::size_t> Shuffled(std::size_t nPaths, Random& random)
{
    std::vector<std::size_t> vec_Order(nPaths);
    std::iota(vec_Order.begin(), vec_Order.end(), std::size_t{0});
    std::shuffle(vec_Order.begin(), vec_Order.end(), random);
    return vec_Order;
}

// Three jobs on each path: the graphs are new, so their results must agree one by one. The order is
// another each time, because the first jobs allocate the graphs' pictures: whose lie well in memory is luck
// that must not always meet the same path.
std::string FindDifference(const Job& job, Random& random)
{
    using Bytes = std::vector<std::uint8_t>;
    std::vector<std::vector<Bytes>> vec_Results(job.vec_Paths.size());
    for (const std::size_t p : Shuffled(job.vec_Paths.size(), random)) {
        const Path& path = job.vec_Paths[p];
        for (int i = 0; i < 3; ++i) {
            std::fill_n(job.pOut->Data(), job.pOut->Size(), static_cast<unsigned char>(0xA5));
            if (!path.Run(1)) {
                return path.szName + " failed";
            }
            vec_Results[p].push_back(path.Result());
        }
    }
    for (std::size_t p = 1; p < vec_Results.size(); ++p) {
        if (job.vec_Paths[p].bSameResult && vec_Results[p] != vec_Results[0]) {
            return job.vec_Paths[p].szName + " gives another result than the library";
        }
    }
    return {};
}

// The number of jobs that fill a sample.
int Calibrate(const Path& path, double dSampleMs)
{
    int n = 1;
    double dJob = Take(path, 1).dWall;
    while (dJob * n < dSampleMs * 1e6 && n < 1000000) {
        n = std::max(2 * n, static_cast<int>(dSampleMs * 1e6 / std::max(dJob, 1.0)));
        dJob = Take(path, n).dWall;
    }
    return n;
}

struct Series {
    std::vector<double> vec_Wall, vec_Cpu, vec_Ratio, vec_Difference;
};

double Quantile(std::vector<double> vec_Values, double dPart)
{
    if (vec_Values.empty()) {
        return 0;
    }
    std::sort(vec_Values.begin(), vec_Values.end());
    const double dPlace = dPart * static_cast<double>(vec_Values.size() - 1);
    const auto nBelow = static_cast<std::size_t>(dPlace);
    const std::size_t nAbove = std::min(nBelow + 1, vec_Values.size() - 1);
    const double dFraction = dPlace - static_cast<double>(nBelow);
    return vec_Values[nBelow] * (1 - dFraction) + vec_Values[nAbove] * dFraction;
}

void Compare(benchmark::State& state, const Effort& effort, const std::function<Job()>& make)
{
    Random random(1);
    Job job;
    std::vector<Series> vec_Series;
    int nRound = 0;
    int nJobs = 1;
    const int nPerInstance = (effort.nRounds + effort.nInstances - 1) / effort.nInstances;
    for ([[maybe_unused]] auto round : state) {
        if (nRound % nPerInstance == 0) {
            job = Job{};
            job = make();
            const std::string szDifference = FindDifference(job, random);
            if (!szDifference.empty()) {
                state.SkipWithError(szDifference.c_str());
                return;
            }
            nJobs = Calibrate(job.vec_Paths.front(), effort.dSampleMs);
            vec_Series.resize(job.vec_Paths.size());
        }
        const std::size_t nPaths = job.vec_Paths.size();
        std::vector<Sample> vec_Samples(nPaths);
        for (const std::size_t p : Shuffled(nPaths, random)) {
            vec_Samples[p] = Take(job.vec_Paths[p], nJobs);
            if (vec_Samples[p].dWall < 0) {
                state.SkipWithError((job.vec_Paths[p].szName + " failed").c_str());
                return;
            }
        }
        const double dLibrary = vec_Samples.front().dWall;
        state.SetIterationTime(dLibrary / 1e9);
        for (std::size_t p = 0; p < nPaths; ++p) {
            vec_Series[p].vec_Wall.push_back(vec_Samples[p].dWall);
            vec_Series[p].vec_Cpu.push_back(vec_Samples[p].dCpu);
            vec_Series[p].vec_Ratio.push_back(dLibrary / vec_Samples[p].dWall);
            vec_Series[p].vec_Difference.push_back(dLibrary - vec_Samples[p].dWall);
        }
        ++nRound;
    }
    for (std::size_t p = 0; p < vec_Series.size(); ++p) {
        const std::string& szPath = job.vec_Paths[p].szName;
        state.counters["t_" + szPath] = Median(vec_Series[p].vec_Wall);
        state.counters["c_" + szPath] = Median(vec_Series[p].vec_Cpu);
        if (p > 0) {
            state.counters["r_" + szPath] = Median(vec_Series[p].vec_Ratio);
            state.counters["lo_" + szPath] = Quantile(vec_Series[p].vec_Ratio, 0.25);
            state.counters["hi_" + szPath] = Quantile(vec_Series[p].vec_Ratio, 0.75);
            state.counters["d_" + szPath] = Median(vec_Series[p].vec_Difference);
        }
    }
}

} // namespace

double Median(std::vector<double> vec_Values)
{
    return Quantile(std::move(vec_Values), 0.5);
}

Effort EffortFor(const Size& size)
{
    if (g_bQuick) {
        return {true, 2, 1, 0.2};
    }
    const int nPixels = size.nWidth * size.nHeight;
    if (nPixels > 4000000) {
        return {false, 192, 32, 1};
    }
    // Short samples: one that another program cuts into is then one of many.
    return nPixels > 500000 ? Effort{false, 256, 32, 1} : Effort{false, 400, 16, 0.3};
}

Effort EffortForBlocks()
{
    return EffortFor({16, 16});
}

void RegisterComparison(const std::string& szName, const Effort& effort, std::function<Job()> make)
{
    benchmark::RegisterBenchmark(
        szName.c_str(),
        [effort, make = std::move(make)](benchmark::State& state) { Compare(state, effort, make); })
        ->UseManualTime()
        ->Iterations(effort.nRounds)
        ->Unit(benchmark::kMicrosecond);
}

} // namespace bench
