// How costs grow with the handles that live and with the inputs of a mix.
#include "compare.h"
#include "graph.h"

#include "Telvane_AVFilter.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <fstream>
#include <malloc.h>
#include <unistd.h>

namespace bench
{

namespace
{

using Clock = std::chrono::steady_clock;
double Since(Clock::time_point start)
{
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

double ResidentBytes()
{
    malloc_trim(0);
    std::ifstream file("/proc/self/statm");
    double dSize = 0;
    double dResident = 0;
    file >> dSize >> dResident;
    return dResident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

double Threads()
{
    std::ifstream file("/proc/self/status");
    for (std::string szField; file >> szField;) {
        if (szField == "Threads:") {
            double dThreads = 0;
            file >> dThreads;
            return dThreads;
        }
    }
    return 0;
}

// What one more handle is made and destroyed by.
struct Maker {
    std::string szName;
    std::function<void()> Make;
    std::function<void()> DestroyLast;
};

// Time, threads and memory of one more handle beside n others.
void CreateAndDestroy(benchmark::State& state, const Maker& maker, int nLive, int nSamples)
{
    for ([[maybe_unused]] auto once : state) {
        maker.Make(); // what FFmpeg sets up once for the process
        maker.DestroyLast();
        const double dBytes = ResidentBytes();
        const double dThreads = Threads();
        for (int i = 0; i < nLive; ++i) {
            maker.Make();
        }
        state.counters["bytes"] = (ResidentBytes() - dBytes) / nLive;
        state.counters["threads"] = (Threads() - dThreads) / nLive;
        std::vector<double> vec_Make;
        std::vector<double> vec_Destroy;
        for (int i = 0; i < nSamples; ++i) {
            auto start = Clock::now();
            maker.Make();
            vec_Make.push_back(Since(start));
            start = Clock::now();
            maker.DestroyLast();
            vec_Destroy.push_back(Since(start));
        }
        state.counters["create"] = Median(vec_Make);
        state.counters["destroy"] = Median(vec_Destroy);
        for (int i = 0; i < nLive; ++i) {
            maker.DestroyLast();
        }
    }
}

constexpr const char* kDescr = "[in]hflip,format=yuv420p[out]";

Maker LibraryGraphs()
{
    auto pHandles = std::make_shared<std::vector<unsigned long long>>();
    return {"library",
            [=] {
                AVFILTER_VIDEO_INFO st_Info{};
                st_Info.nWidth = st_Info.nHeight = 64;
                st_Info.nTimeBase = 25;
                Require(AVFilter_Video_Init(&pHandles->emplace_back(), kDescr, &st_Info),
                        "AVFilter_Video_Init");
            },
            [=] {
                AVFilter_Video_Destroy(pHandles->back());
                pHandles->pop_back();
            }};
}

Maker FfmpegGraphs()
{
    auto pGraphs = std::make_shared<std::vector<std::unique_ptr<Graph>>>();
    return {"default_threads",
            [=] {
                pGraphs->push_back(std::make_unique<Graph>(
                    false,
                    std::vector<GraphSource>{
                        {"in", "video_size=64x64:pix_fmt=0:time_base=1/25:pixel_aspect=0/1"}},
                    kDescr, kDefaultThreads));
            },
            [=] { pGraphs->pop_back(); }};
}

Maker LibraryScalers()
{
    auto pHandles = std::make_shared<std::vector<unsigned long long>>();
    return {
        "scalers",
        [=] { Require(AVFilter_VideoScale_Init(&pHandles->emplace_back()), "AVFilter_VideoScale_Init"); },
        [=] {
            AVFilter_VideoScale_Destory(pHandles->back());
            pHandles->pop_back();
        }};
}

// The time of a call on one handle while others live.
void Calls(benchmark::State& state, const Maker& others, int nLive, const Job& job)
{
    const Path& path = job.vec_Paths.front();
    for ([[maybe_unused]] auto once : state) {
        for (int i = 1; i < nLive; ++i) {
            others.Make();
        }
        std::vector<double> vec_Calls;
        const int nCalls = g_bQuick ? 100 : 1000;
        for (int i = 0; i < (g_bQuick ? 5 : 201); ++i) {
            const auto start = Clock::now();
            if (!path.Run(nCalls)) {
                state.SkipWithError("call failed");
                return;
            }
            vec_Calls.push_back(Since(start) / nCalls);
        }
        state.counters["call"] = Median(vec_Calls);
        for (int i = 1; i < nLive; ++i) {
            others.DestroyLast();
        }
    }
}

std::string Count(int n)
{
    return std::string(1, '/') += std::to_string(n);
}

void Register(const std::string& szName, const std::function<void(benchmark::State&)>& run)
{
    benchmark::RegisterBenchmark(szName.c_str(), run)->Iterations(1)->Unit(benchmark::kMillisecond);
}

} // namespace

void RegisterGrowth()
{
    const int nSamples = g_bQuick ? 5 : 101;
    const std::vector<int> vec_Live =
        g_bQuick ? std::vector{1, 100} : std::vector{1, 10, 100, 1000, 10000, 100000};
    for (const int nLive : vec_Live) {
        for (const Maker& maker : {LibraryGraphs(), FfmpegGraphs()}) {
            // More threads than a thousand graphs start are more than most systems let a process have.
            if (nLive <= 1000 || maker.szName == "library") {
                Register("growth/graphs/" + maker.szName + Count(nLive),
                         [=](benchmark::State& state) { CreateAndDestroy(state, maker, nLive, nSamples); });
            }
        }
        Register("growth/video_filter_calls" + Count(nLive), [=](benchmark::State& state) {
            Calls(state, LibraryGraphs(), nLive, VideoFilter({16, 16}, Mode::kWhole, "hflip"));
        });
    }
    for (const int nLive : g_bQuick ? std::vector{1, 1000} : std::vector{1, 1000, 100000}) {
        const std::string szLive = Count(nLive);
        Register("growth/scale_calls" + szLive, [=](benchmark::State& state) {
            Calls(state, LibraryScalers(), nLive,
                  Scale({AV_PIX_FMT_YUV420P, {16, 16}, AV_PIX_FMT_RGB24, {16, 16}}));
        });
        Register("growth/scalers/library" + szLive, [=](benchmark::State& state) {
            CreateAndDestroy(state, LibraryScalers(), nLive, 10 * nSamples);
        });
    }
    for (const int nInputs : g_bQuick ? std::vector{2, 16} : std::vector{2, 8, 32, 128}) {
        RegisterComparison("growth/audio_mix_inputs" + Count(nInputs), EffortForBlocks(), [=] {
            Job job = AudioMix(64, nInputs);
            job.vec_Paths.resize(2); // the library and the steps
            return job;
        });
    }
}

} // namespace bench
