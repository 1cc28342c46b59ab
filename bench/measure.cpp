#include "measure.h"

#include "tests/support/buffers.h"
#include "tests/support/jobs.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <numeric>
#include <random>

namespace bench
{

namespace
{

using Clock = std::chrono::steady_clock;
using Random = std::minstd_rand;

// Nanoseconds per job. One job goes before, untimed: the caches hold what the path before has left, and who
// works in one way only finds them filled by himself.
double Take(const Path& path, int n)
{
    jobs::Demand(path.Run(1), path.szName.c_str());
    n = std::max(n, path.nAtLeast);
    return Time([&] { jobs::Demand(path.Run(n), path.szName.c_str()); }) / n;
}

std::vector<std::size_t> Shuffled(std::size_t nPaths, Random& random)
{
    std::vector<std::size_t> vec_Order(nPaths);
    std::iota(vec_Order.begin(), vec_Order.end(), std::size_t{0});
    std::shuffle(vec_Order.begin(), vec_Order.end(), random);
    return vec_Order;
}

// Three jobs on each path, which are new, so that their results must agree. The order is another each time,
// because the first jobs allocate the graphs' pictures: whose lie well in memory is luck that must not always meet
// the same path.
void CheckResults(const std::string& szName, const Job& job, Random& random)
{
    std::vector<test::Bytes> vec_Results(job.vec_Paths.size());
    for (const std::size_t p : Shuffled(job.vec_Paths.size(), random)) {
        std::fill_n(job.pOut->Data(), job.pOut->Size(), static_cast<unsigned char>(0xA5));
        jobs::Demand(job.vec_Paths[p].Run(3), (szName + ", " + job.vec_Paths[p].szName).c_str());
        vec_Results[p].assign(job.pOut->Data(), job.pOut->Data() + job.pOut->Size());
    }
    for (std::size_t p = 1; p < vec_Results.size(); ++p) {
        jobs::Demand(
            !job.vec_Paths[p].bSameResult || vec_Results[p] == vec_Results[0],
            (szName + ": another result than the first path's: " + job.vec_Paths[p].szName).c_str());
    }
}

// The number of jobs that fill a sample. Short ones: one that another program cuts into is then one of many.
int Calibrate(const Path& path)
{
    constexpr double kSample = 0.4e6;
    int n = 1;
    double dJob = Take(path, 1);
    while (dJob * n < kSample && n < 1000000) {
        n = std::max(2 * n, static_cast<int>(kSample / std::max(dJob, 1.0)));
        dJob = Take(path, n);
    }
    return n;
}

double Quantile(std::vector<double> vec_Values, double dPart)
{
    std::sort(vec_Values.begin(), vec_Values.end());
    const double dPlace = dPart * static_cast<double>(vec_Values.size() - 1);
    const auto nBelow = static_cast<std::size_t>(dPlace);
    const std::size_t nAbove = std::min(nBelow + 1, vec_Values.size() - 1);
    const double dFraction = dPlace - static_cast<double>(nBelow);
    return vec_Values[nBelow] * (1 - dFraction) + vec_Values[nAbove] * dFraction;
}

struct Series {
    std::vector<double> vec_Time, vec_Ratio;
};

} // namespace

Buffer::Buffer(std::size_t nSize)
    : m_nSize(nSize),
      m_pData(static_cast<unsigned char*>(std::aligned_alloc(64, (nSize + kSpare + 127) / 64 * 64)))
{
    jobs::Demand(m_pData != nullptr, "memory");
    const test::Bytes noise = test::Noise(nSize);
    std::copy(noise.begin(), noise.end(), Data());
}

double Median(std::vector<double> vec_Values)
{
    return Quantile(std::move(vec_Values), 0.5);
}

double Time(const std::function<void()>& call)
{
    const auto start = Clock::now();
    call();
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

std::vector<Figures> Compare(const std::string& szName, double dSeconds, const std::function<Job()>& make)
{
    constexpr int kInstances =
        16; // times that the job is built anew, so that no path keeps a lucky place in memory
    Random random(std::random_device{}());
    Job job;
    std::vector<Series> vec_Series;
    for (int i = 0; i < (g_bQuick ? 1 : kInstances); ++i) {
        job = Job{};
        job = make();
        CheckResults(szName, job, random);
        const int nJobs = g_bQuick ? 1 : Calibrate(job.vec_Paths.front());
        vec_Series.resize(job.vec_Paths.size());
        const auto end = Clock::now() + std::chrono::duration<double>(g_bQuick ? 0 : dSeconds / kInstances);
        do {
            std::vector<double> vec_Times(job.vec_Paths.size());
            for (const std::size_t p : Shuffled(vec_Times.size(), random)) {
                vec_Times[p] = Take(job.vec_Paths[p], nJobs);
            }
            for (std::size_t p = 0; p < vec_Times.size(); ++p) {
                vec_Series[p].vec_Time.push_back(vec_Times[p]);
                vec_Series[p].vec_Ratio.push_back(vec_Times[0] / vec_Times[p]);
            }
        } while (Clock::now() < end);
    }
    std::vector<Figures> vec_Figures;
    for (std::size_t p = 0; p < vec_Series.size(); ++p) {
        const Series& series = vec_Series[p];
        vec_Figures.push_back({job.vec_Paths[p].szName, Median(series.vec_Time), Median(series.vec_Ratio),
                               Quantile(series.vec_Ratio, 0.25), Quantile(series.vec_Ratio, 0.75)});
    }
    static_cast<void>(
        std::fprintf(stderr, "%s, %zu rounds\n", szName.c_str(), vec_Series[0].vec_Time.size()));
    return vec_Figures;
}

std::string Number(const char* szFormat, double dValue)
{
    char szText[64];
    // NOLINTNEXTLINE(clang-diagnostic-format-nonliteral): the callers' own texts
    static_cast<void>(std::snprintf(szText, sizeof(szText), szFormat, dValue));
    return szText;
}

std::string Duration(double dNanoseconds)
{
    return dNanoseconds >= 1e6   ? Number("%.3g ms", dNanoseconds / 1e6)
           : dNanoseconds >= 1e3 ? Number("%.3g µs", dNanoseconds / 1e3)
                                 : Number("%.0f ns", dNanoseconds);
}

void Row(const std::vector<std::string>& vec_Cells)
{
    std::string szLine = "|";
    for (const std::string& szCell : vec_Cells) {
        szLine.append(" ").append(szCell).append(" |");
    }
    std::puts(szLine.c_str());
}

void Head(const std::vector<std::string>& vec_Cells)
{
    std::puts("");
    Row(vec_Cells);
    std::string szLine = "|";
    for (std::size_t i = 0; i < vec_Cells.size(); ++i) {
        szLine += "---|";
    }
    std::puts(szLine.c_str());
}

} // namespace bench
